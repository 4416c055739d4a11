// The node-wide severity filter and the per-set category masks: changing and
// reading them, the severity mask file written on each change, and the
// trace mask file that gives new trace sets their category mask.
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "common/shared_fields.h"
#include "tests/support/node_test.h"
#include "tests/support/recording_platform.h"
#include "trace/control/masks.h"
#include "trace/store/startup.h"

namespace nt::test {
namespace {

constexpr std::size_t kSeverityMaskOffset = 9;
constexpr std::size_t kLockHolderOffset = 24;
constexpr std::size_t kDescriptorTableOffset = 248;
constexpr std::size_t kDescriptorSize = 48;
constexpr std::size_t kCategoryMaskOffset = 24;
constexpr std::uint32_t kUntouched = 0xDEADBEEF;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

class MasksTest : public NodeTest {
 protected:
  std::string severityFile() const { return path("/ffs/run/logs/severityMask.conf"); }
  std::string masksFile() const { return path("/ffs/run/logs/trace_masks.conf"); }

  // The severity filter as other processes see it: byte 9 of the object.
  std::uint8_t severityByte() const { return readSharedObject(shmName()).at(kSeverityMaskOffset); }

  // The category mask of user set id, read from the shared object's bytes.
  std::uint32_t categoryMaskBytes(int id) const {
    return u32At(readSharedObject(shmName()),
                 kDescriptorTableOffset + static_cast<std::size_t>(id) * kDescriptorSize + kCategoryMaskOffset);
  }

  // A new user set; fails the test when creation does not return 0.
  // Lookup of name in the trace mask file, the result preset to kUntouched.
  struct Lookup {
    int rc;
    std::uint32_t mask;
  };
  static Lookup lookup(const char* name) {
    Lookup result{-1, kUntouched};
    result.rc = lookupTraceMask(name, &result.mask);
    return result;
  }

  // A fresh node for the next round of a test that loops over file texts.
  void restartNode() {
    TearDown();
    SetUp();
  }

  // The current trace mask file has a line for "Radio" giving fileMask: the
  // lookup finds it and a new set takes it over the creator's mask.
  void expectFileMaskForRadio(std::uint32_t fileMask) {
    const Lookup found = lookup("Radio");
    EXPECT_EQ(found.rc, 1);
    EXPECT_EQ(found.mask, fileMask);
    EXPECT_EQ(categoryMaskBytes(createSet("Radio", TS_STRING, 10, 128, ~fileMask)), fileMask);
  }

  // On a fresh node, a trace mask file of this text has no line for
  // "Radio": the lookup finds nothing and a new set keeps its creator's mask.
  void expectNoLineFor(const char* text, std::uint32_t creatorMask) {
    SCOPED_TRACE(text);
    restartNode();
    writeFileText(masksFile(), text);
    const Lookup found = lookup("Radio");
    EXPECT_EQ(found.rc, 0);
    EXPECT_EQ(found.mask, kUntouched);
    EXPECT_EQ(categoryMaskBytes(createSet("Radio", TS_STRING, 10, 128, creatorMask)), creatorMask);
  }
};

// --- modifySeverityMask -------------------------------------------------------

TEST_F(MasksTest, MaskWithoutSeverityBitsIsRefusedAndChangesNothing) {
  EXPECT_EQ(modifySeverityMask(0x07, 1), -3);
  EXPECT_EQ(modifySeverityMask(0x07, 0), -3);
  EXPECT_EQ(modifySeverityMask(0x00, 1), -3);
  EXPECT_EQ(severityByte(), 0xE8);
  EXPECT_FALSE(fileExists(severityFile()));  // absent stays absent
}

TEST_F(MasksTest, MaskWithoutSeverityBitsLeavesAnExistingFileAlone) {
  writeFileText(severityFile(), "0xE8\n");
  getCurrentNumberTraceSets();
  writeFileText(severityFile(), "kept");
  EXPECT_EQ(modifySeverityMask(0x07, 1), -3);
  EXPECT_EQ(severityByte(), 0xE8);
  EXPECT_EQ(readFileText(severityFile()), "kept");
}

TEST_F(MasksTest, SettingTheDebugBitWritesTheNewFilter) {
  EXPECT_EQ(modifySeverityMask(0x10, 1), 0);
  EXPECT_EQ(severityByte(), 0xF8);
  EXPECT_EQ(readFileBytes(severityFile()), bytesOf("0xF8\n"));
}

TEST_F(MasksTest, AnUnchangedFilterDoesNotRewriteTheFile) {
  ASSERT_EQ(modifySeverityMask(0x10, 1), 0);
  ASSERT_EQ(readFileText(severityFile()), "0xF8\n");
  writeFileText(severityFile(), "junk");

  EXPECT_EQ(modifySeverityMask(0x10, 1), 0);
  EXPECT_EQ(readFileText(severityFile()), "junk");
  // Bits that are set already change nothing either.
  EXPECT_EQ(modifySeverityMask(0xC0, 1), 0);
  EXPECT_EQ(readFileText(severityFile()), "junk");
  // Nor does clearing a bit that is clear.
  EXPECT_EQ(modifySeverityMask(0x10, 1), 0);
  ASSERT_EQ(modifySeverityMask(0x10, 0), 0);
  ASSERT_EQ(readFileText(severityFile()), "0xE8\n");
  writeFileText(severityFile(), "junk");
  EXPECT_EQ(modifySeverityMask(0x10, 0), 0);
  EXPECT_EQ(readFileText(severityFile()), "junk");
  EXPECT_EQ(severityByte(), 0xE8);
}

TEST_F(MasksTest, TheFileIsRewrittenWhole) {
  writeFileText(severityFile(), "0xE8 and a much longer text than the value\n");
  ASSERT_EQ(modifySeverityMask(0x10, 1), 0);
  EXPECT_EQ(readFileBytes(severityFile()), bytesOf("0xF8\n"));
}

TEST_F(MasksTest, AnySetOtherThanOneClearsTheBits) {
  for (const int set : {0, 2, -1}) {
    SCOPED_TRACE(set);
    restartNode();
    EXPECT_EQ(modifySeverityMask(0x08, set), 0);
    EXPECT_EQ(severityByte(), 0xE0);
    EXPECT_EQ(readFileBytes(severityFile()), bytesOf("0xE0\n"));
  }
}

TEST_F(MasksTest, LowBitsOfTheMaskTakePart) {
  EXPECT_EQ(modifySeverityMask(0x88, 0), 0);
  EXPECT_EQ(severityByte(), 0x60);
  EXPECT_EQ(readFileBytes(severityFile()), bytesOf("0x60\n"));

  EXPECT_EQ(modifySeverityMask(0x17, 1), 0);
  EXPECT_EQ(severityByte(), 0x77);
  EXPECT_EQ(readFileBytes(severityFile()), bytesOf("0x77\n"));

  EXPECT_EQ(modifySeverityMask(0xFF, 0), 0);
  EXPECT_EQ(severityByte(), 0x00);
  EXPECT_EQ(readFileBytes(severityFile()), bytesOf("0x00\n"));
}

TEST_F(MasksTest, AFileThatCannotBeWrittenStillChangesTheFilter) {
  getCurrentNumberTraceSets();
  std::filesystem::remove_all(path("/ffs/run/logs"));
  StderrCapture capture;
  EXPECT_EQ(modifySeverityMask(0x10, 1), 0);
  EXPECT_EQ(capture.take(), "");
  EXPECT_EQ(severityByte(), 0xF8);
  EXPECT_EQ(getSeverityFilter(), 0xF8);
  EXPECT_FALSE(fileExists(severityFile()));
}

TEST_F(MasksTest, TheWrittenFileGivesTheFilterOfTheNextObject) {
  ASSERT_EQ(modifySeverityMask(0x30, 0), 0);  // 0xE8 -> 0xC8
  ASSERT_EQ(readFileText(severityFile()), "0xC8\n");
  // The node restarts: the object is gone, the file stays.
  resetProcessStateForTests();
  shm_unlink(shmName().c_str());
  EXPECT_EQ(getSeverityFilter(), 0xC8);
  EXPECT_EQ(severityByte(), 0xC8);
}

TEST_F(MasksTest, SeverityFileWithoutThePrefixOrWithThePrefixAloneKeepsTheDefault) {
  for (const char* text : {"E8\n", "E8", "0x\n", "0x", "F8\n"}) {
    SCOPED_TRACE(text);
    restartNode();
    writeFileText(severityFile(), text);
    EXPECT_EQ(getSeverityFilter(), 0xE8);
    EXPECT_EQ(severityByte(), 0xE8);
  }
}

// --- getSeverityFilter, isTraceEnabled ----------------------------------------

TEST_F(MasksTest, SeverityFilterIsTheHeaderByte) {
  EXPECT_EQ(getSeverityFilter(), 0xE8);
  storeShared(&header()->severityMask, 0x5A);
  EXPECT_EQ(getSeverityFilter(), 0x5A);
  storeShared(&header()->severityMask, 0x00);
  EXPECT_EQ(getSeverityFilter(), 0x00);
  ASSERT_EQ(modifySeverityMask(0x80, 1), 0);
  EXPECT_EQ(getSeverityFilter(), 0x80);
}

TEST_F(MasksTest, SeverityFilterAsTheFirstCallStartsTheSystem) {
  writeFileText(severityFile(), "0x28\n");
  EXPECT_EQ(getSeverityFilter(), 0x28);
}

TEST_F(MasksTest, TraceEnabledIsTheHeaderFlag) {
  EXPECT_EQ(isTraceEnabled(), 1);
  storeShared(&header()->traceEnabled, 0u);
  EXPECT_EQ(isTraceEnabled(), 0);
  storeShared(&header()->traceEnabled, 1u);
  EXPECT_EQ(isTraceEnabled(), 1);
}

// --- setCategoryMask, getCategoryMask -----------------------------------------

TEST_F(MasksTest, PersistentSetsHaveNoSettableCategoryMask) {
  for (const std::uint32_t mask : {0u, 1u, 0xFFFFFFFFu}) {
    EXPECT_EQ(setCategoryMask(255, mask), -5);
    EXPECT_EQ(setCategoryMask(254, mask), -5);
  }
  EXPECT_EQ(getCategoryMask(255), -1);
  EXPECT_EQ(getCategoryMask(254), -1);
  EXPECT_EQ(static_cast<std::uint32_t>(getCategoryMask(255)), 0xFFFFFFFFu);
}

TEST_F(MasksTest, UnknownIdsAreRefused) {
  for (const std::int16_t id : {0, 1, 199, 200, 253, -1, 0x7FFF}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(setCategoryMask(id, 0x0F), -5);
    EXPECT_EQ(getCategoryMask(id), 0);
  }
  const std::int16_t id = createSet("Radio", TS_STRING, 10, 128, 0xF0);
  ASSERT_EQ(id, 0);
  EXPECT_EQ(setCategoryMask(1, 0x0F), -5);
  EXPECT_EQ(getCategoryMask(1), 0);
  EXPECT_EQ(categoryMaskBytes(0), 0xF0u);
  EXPECT_EQ(categoryMaskBytes(1), 0u);
}

TEST_F(MasksTest, SettingReplacesTheMaskOfTheSet) {
  createSet("Radio", TS_STRING, 10, 128, 0x01);
  const std::int16_t id = createSet("Poll", TS_STRING, 10, 128, 0xF0);
  ASSERT_EQ(id, 1);

  EXPECT_EQ(setCategoryMask(id, 0x0F), 0);
  EXPECT_EQ(categoryMaskBytes(id), 0x0Fu);  // not 0xFF
  EXPECT_EQ(getCategoryMask(id), 0x0F);
  EXPECT_EQ(categoryMaskBytes(0), 0x01u);   // the other set keeps its own

  EXPECT_EQ(setCategoryMask(id, 0), 0);
  EXPECT_EQ(categoryMaskBytes(id), 0u);
  EXPECT_EQ(setCategoryMask(id, 0x80000001u), 0);
  EXPECT_EQ(categoryMaskBytes(id), 0x80000001u);
  EXPECT_EQ(static_cast<std::uint32_t>(getCategoryMask(id)), 0x80000001u);

  // No configuration file is written.
  EXPECT_FALSE(fileExists(masksFile()));
  EXPECT_FALSE(fileExists(severityFile()));
}

TEST_F(MasksTest, GettingReadsTheDescriptor) {
  const std::int16_t id = createSet("Radio", TS_STRING, 10, 128, 0x12345678);
  EXPECT_EQ(getCategoryMask(id), 0x12345678);
  storeShared(&userDescriptor(0)->categoryMask, 0xFFFFFFFEu);
  EXPECT_EQ(getCategoryMask(id), -2);
}

// --- the trace mask file ------------------------------------------------------

TEST_F(MasksTest, MaskWithOrWithoutPrefixIsHex) {
  for (const char* text : {"Radio 0x1F\n", "Radio 1f\n", "Radio 0X1F\n", "Radio 1F\n", "Radio 0x1f"}) {
    SCOPED_TRACE(text);
    restartNode();
    writeFileText(masksFile(), text);
    const Lookup found = lookup("Radio");
    EXPECT_EQ(found.rc, 1);
    EXPECT_EQ(found.mask, 0x1Fu);
    const std::int16_t id = createSet("Radio", TS_STRING, 10, 128, 0xA5A50000);
    EXPECT_EQ(categoryMaskBytes(id), 0x1Fu);  // the file overrides the creator
  }
}

TEST_F(MasksTest, UpperCasePrefixIsLeftToTheHexScan) {
  // "0X" is not taken off: the line starts with a digit and is used, and
  // the scan reads the 0 before the X.
  writeFileText(masksFile(), "Radio 0Xzz\nPoll 0X\n");
  Lookup found = lookup("Radio");
  EXPECT_EQ(found.rc, 1);
  EXPECT_EQ(found.mask, 0u);
  found = lookup("Poll");
  EXPECT_EQ(found.rc, 1);
  EXPECT_EQ(found.mask, 0u);
}

TEST_F(MasksTest, MaskThatIsNotHexIsIgnored) {
  for (const char* text : {"Radio zz\n", "Radio 0xzz\n", "Radio 0x\n", "Radio -1\n", "Radio x1\n"}) {
    expectNoLineFor(text, 0xA5A50000);
  }
}

TEST_F(MasksTest, FullWidthMasks) {
  writeFileText(masksFile(), "Radio ffffffff\nPoll 0x80000001\nZero 0\n");
  EXPECT_EQ(lookup("Radio").mask, 0xFFFFFFFFu);
  EXPECT_EQ(lookup("Poll").mask, 0x80000001u);
  const Lookup zero = lookup("Zero");
  EXPECT_EQ(zero.rc, 1);
  EXPECT_EQ(zero.mask, 0u);
}

TEST_F(MasksTest, NameAloneOnItsLineNeverMatches) {
  for (const char* text : {"Radio\n", "Radio", "Radio \n", "Radio\t\n"}) {
    expectNoLineFor(text, 0x0300);
  }
}

TEST_F(MasksTest, TheNewlineIsNotASeparator) {
  writeFileText(masksFile(), "Radio\n0x1\n");
  EXPECT_EQ(lookup("Radio").rc, 0);
  EXPECT_EQ(lookup("0x1").rc, 0);  // its name is "0x1" and a newline
}

TEST_F(MasksTest, NumberSignStartsAComment) {
  writeFileText(masksFile(), "#Radio 0x1\n# Radio 0x1\n#\tRadio 0x1\n");
  for (const char* name : {"#Radio", "Radio", "#"}) {
    SCOPED_TRACE(name);
    const Lookup found = lookup(name);
    EXPECT_EQ(found.rc, 0);
    EXPECT_EQ(found.mask, kUntouched);
  }
  const std::int16_t id = createSet("Radio", TS_STRING, 10, 128, 0x44);
  EXPECT_EQ(categoryMaskBytes(id), 0x44u);
}

TEST_F(MasksTest, BlankTabCarriageReturnAndVerticalTabSeparate) {
  for (const char* separators : {"  ", "\t\t", "\r\r", "\v\v", " \t", "\r\v", "\v \t\r", " "}) {
    SCOPED_TRACE(testing::PrintToString(std::string(separators)));
    restartNode();
    writeFileText(masksFile(), std::string(separators) + "Radio" + separators + "0x1" + separators + "extra\n");
    expectFileMaskForRadio(0x1);
  }
}

TEST_F(MasksTest, CarriageReturnLineEndsWork) {
  writeFileText(masksFile(), "# made elsewhere\r\nRadio 0x3\r\nPoll\t0x4\r\n");
  EXPECT_EQ(lookup("Radio").mask, 0x3u);
  EXPECT_EQ(lookup("Poll").mask, 0x4u);
}

TEST_F(MasksTest, TheLastMatchingLineWins) {
  writeFileText(masksFile(), "Radio 1\nPoll 7\nRadio 2\nRadio zz\nRadio\n");
  expectFileMaskForRadio(2);
}

TEST_F(MasksTest, NamesAreComparedOverTwentyCharactersCaseSensitive) {
  // 25 characters in the file.
  writeFileText(masksFile(), "ABCDEFGHIJKLMNOPQRSTUVWXY 0x5\n");
  EXPECT_EQ(lookup("ABCDEFGHIJKLMNOPQRST").mask, 0x5u);    // the first 20 are equal
  EXPECT_EQ(lookup("ABCDEFGHIJKLMNOPQRSTzzz").mask, 0x5u);
  EXPECT_EQ(lookup("ABCDEFGHIJKLMNOPQRSTUVWXY").mask, 0x5u);
  EXPECT_EQ(lookup("ABCDEFGHIJKLMNOPQRS").rc, 0);         // 19 are not enough
  EXPECT_EQ(lookup("ABCDEFGHIJKLMNOPQRSX").rc, 0);
  EXPECT_EQ(lookup("abcdefghijklmnopqrstuvwxy").rc, 0);
  EXPECT_EQ(lookup("ABCDEFGHIJKLMNOPQRSTUVWXY").rc, 1);

  writeFileText(masksFile(), "Radio 0x5\n");
  EXPECT_EQ(lookup("radio").rc, 0);
  EXPECT_EQ(lookup("Radi").rc, 0);
  EXPECT_EQ(lookup("Radio2").rc, 0);
}

TEST_F(MasksTest, LongLinesArriveInPiecesOfSeventyNineCharacters) {
  // The first piece holds a name of its own and nothing else; the second
  // piece, from character 80 on, is a matching line.
  const std::string first = "Other" + std::string(74, ' ');
  ASSERT_EQ(first.size(), 79u);
  writeFileText(masksFile(), first + "Radio 0x2A\n");
  Lookup found = lookup("Radio");
  EXPECT_EQ(found.rc, 1);
  EXPECT_EQ(found.mask, 0x2Au);
  EXPECT_EQ(lookup("Other").rc, 0);
  const std::int16_t id = createSet("Radio", TS_STRING, 10, 128, 0xF0);
  EXPECT_EQ(categoryMaskBytes(id), 0x2Au);

  // A name cut at the boundary is two names.
  writeFileText(masksFile(), std::string(77, ' ') + "Ra" + "dio 0x1\n");
  EXPECT_EQ(lookup("Radio").rc, 0);
  EXPECT_EQ(lookup("dio").mask, 0x1u);

  // A line of exactly 79 characters leaves its newline as an empty piece.
  writeFileText(masksFile(), "Radio 0x3" + std::string(70, ' ') + "\nPoll 0x4\n");
  EXPECT_EQ(lookup("Radio").mask, 0x3u);
  EXPECT_EQ(lookup("Poll").mask, 0x4u);

  // A mask cut at the boundary keeps only its first digits.
  writeFileText(masksFile(), "Radio" + std::string(72, ' ') + "0x12345678\n");
  EXPECT_EQ(lookup("Radio").rc, 0);  // "0x" alone: no digit, the line is ignored
  writeFileText(masksFile(), "Radio" + std::string(70, ' ') + "0x12345678\n");
  EXPECT_EQ(lookup("Radio").mask, 0x12u);
}

TEST_F(MasksTest, EmptyAndBlankLinesAreSkipped) {
  writeFileText(masksFile(), "\n\n   \n\t\n\r\n Radio 0x5\n\n");
  const Lookup found = lookup("Radio");
  EXPECT_EQ(found.rc, 1);
  EXPECT_EQ(found.mask, 0x5u);
  EXPECT_EQ(lookup("").rc, 0);
  EXPECT_EQ(lookup("\n").rc, 0);
}

TEST_F(MasksTest, MissingOrEmptyFileFindsNothing) {
  getCurrentNumberTraceSets();
  Lookup found = lookup("Radio");
  EXPECT_EQ(found.rc, 0);
  EXPECT_EQ(found.mask, kUntouched);
  writeFileText(masksFile(), "");
  found = lookup("Radio");
  EXPECT_EQ(found.rc, 0);
  EXPECT_EQ(found.mask, kUntouched);
  const std::int16_t id = createSet("Radio", TS_STRING, 10, 128, 0x66);
  EXPECT_EQ(categoryMaskBytes(id), 0x66u);
}

TEST_F(MasksTest, NoMatchingLineLeavesTheResultAlone) {
  writeFileText(masksFile(), "Poll 0x1\nDiag 0x2\n");
  const Lookup found = lookup("Radio");
  EXPECT_EQ(found.rc, 0);
  EXPECT_EQ(found.mask, kUntouched);
}

TEST_F(MasksTest, TheFileIsClosedThroughThePlatform) {
  writeFileText(masksFile(), "Radio 0x1\n");
  getCurrentNumberTraceSets();
  clearPlatformCalls();
  EXPECT_EQ(lookup("Radio").rc, 1);
  EXPECT_EQ(platformCalls("omluFcloseNoLog").size(), 1u);
  EXPECT_EQ(lookup("Poll").rc, 0);
  EXPECT_EQ(platformCalls("omluFcloseNoLog").size(), 2u);
  EXPECT_EQ(platformCalls().size(), 2u);  // no other platform call

  std::filesystem::remove(masksFile());
  clearPlatformCalls();
  EXPECT_EQ(lookup("Radio").rc, 0);
  EXPECT_TRUE(platformCalls().empty());  // nothing was opened
}

TEST_F(MasksTest, TheLookupTakesAndReleasesTheLock) {
  writeFileText(masksFile(), "Radio 0x1\n");
  getCurrentNumberTraceSets();
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);

  // While the test holds the lock the lookup waits.
  ASSERT_EQ(sem_wait(g_process.semaphore), 0);
  std::atomic<int> result{-1};
  std::uint32_t mask = 0;
  std::thread other([&] { result = lookupTraceMask("Radio", &mask); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(result.load(), -1);
  ASSERT_EQ(sem_post(g_process.semaphore), 0);
  other.join();
  EXPECT_EQ(result.load(), 1);
  EXPECT_EQ(mask, 0x1u);

  // And lets go afterwards, also when nothing matched or there is no file.
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(lookup("Poll").rc, 0);
  EXPECT_EQ(semaphoreValue(), 1);
  std::filesystem::remove(masksFile());
  EXPECT_EQ(lookup("Radio").rc, 0);
  EXPECT_EQ(semaphoreValue(), 1);
  EXPECT_EQ(u32At(readSharedObject(shmName()), kLockHolderOffset), 0u);

  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int signal = 1; signal < SIGRTMIN; ++signal) {
    EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
  }
}

TEST_F(MasksTest, TheLookupGoesOnWhenTheLockTimesOut) {
  writeFileText(masksFile(), "Radio 0x9\n");
  getCurrentNumberTraceSets();
  // A live holder that keeps the lock for good. (One that never recorded
  // itself would have its hold claimed after the deadline.)
  const pid_t holder = startLockHolder();

  StderrCapture capture;
  const Lookup found = lookup("Radio");
  const std::string text = capture.take();

  EXPECT_EQ(found.rc, 1);
  EXPECT_EQ(found.mask, 0x9u);
  EXPECT_NE(text.find("could not get trace semaphore"), std::string::npos) << text;
  EXPECT_EQ(semaphoreValue(), 0);  // a lock not obtained is not released
  killAndReap(holder);
}

TEST_F(MasksTest, TheExampleFile) {
  writeFileText(masksFile(), "# comment\nDiagSet 0x0000000F\nPollSet\tffffffff\n");
  EXPECT_EQ(lookup("DiagSet").mask, 0x0000000Fu);
  EXPECT_EQ(lookup("PollSet").mask, 0xFFFFFFFFu);
  EXPECT_EQ(lookup("comment").rc, 0);
  EXPECT_EQ(lookup("#").rc, 0);

  const std::int16_t diag = createSet("DiagSet", TS_STRING, 10, 128, 0x100);
  const std::int16_t poll = createSet("PollSet", TS_STRING, 10, 128, 0x100);
  const std::int16_t other = createSet("OtherSet", TS_STRING, 10, 128, 0x100);
  EXPECT_EQ(categoryMaskBytes(diag), 0x0000000Fu);
  EXPECT_EQ(categoryMaskBytes(poll), 0xFFFFFFFFu);
  EXPECT_EQ(categoryMaskBytes(other), 0x100u);
}

TEST_F(MasksTest, OpeningASetWithALineInTheFileKeepsItsMask) {
  writeFileText(masksFile(), "Radio 0x1F\n");
  const std::int16_t id = createSet("Radio", TS_STRING, 10, 128, 0xF0);
  ASSERT_EQ(categoryMaskBytes(id), 0x1Fu);
  ASSERT_EQ(setCategoryMask(id, 0x100), 0);

  std::int16_t again = -1;
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 0xF000, &again), 0);
  EXPECT_EQ(again, id);
  EXPECT_EQ(categoryMaskBytes(id), 0x100u);  // neither the file value nor widened
}

TEST_F(MasksTest, OpeningASetWithoutALineInTheFileWidensItsMask) {
  writeFileText(masksFile(), "Poll 0x1F\n");
  const std::int16_t id = createSet("Radio", TS_STRING, 10, 128, 0xF0);
  ASSERT_EQ(categoryMaskBytes(id), 0xF0u);

  std::int16_t again = -1;
  EXPECT_EQ(initTraceSet("Radio", TS_STRING, 10, 128, 0x0F, &again), 0);
  EXPECT_EQ(again, id);
  EXPECT_EQ(categoryMaskBytes(id), 0xFFu);
}

// --- the hex conversion -------------------------------------------------------

TEST_F(MasksTest, HexValueIsWhatTheHexScanReads) {
  EXPECT_EQ(parseHexValue("zz"), 0u);
  EXPECT_EQ(parseHexValue(""), 0u);
  EXPECT_EQ(parseHexValue("1f"), 0x1Fu);
  EXPECT_EQ(parseHexValue("1F\n"), 0x1Fu);
  EXPECT_EQ(parseHexValue("0X1F"), 0x1Fu);
  EXPECT_EQ(parseHexValue("0x1f"), 0x1Fu);
  EXPECT_EQ(parseHexValue("ffffffff"), 0xFFFFFFFFu);
  EXPECT_EQ(parseHexValue("12zz"), 0x12u);
}

}  // namespace
}  // namespace nt::test
