// The node is 32-bit ARM. Its builds use 64-bit time_t and off_t, so that
// time conversions and file offsets keep working after January 2038; the
// entry headers carry seconds as unsigned 32-bit words, which read back as
// dates up to 2106 once widened without sign extension.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>

static_assert(sizeof(time_t) == 8, "time_t must be 64 bits wide (build with -D_TIME_BITS=64)");
static_assert(sizeof(off_t) == 8, "off_t must be 64 bits wide (build with -D_FILE_OFFSET_BITS=64)");
static_assert(sizeof(timespec::tv_sec) == 8, "timespec seconds must be 64 bits wide");

namespace {

struct UtcTime {
  int year, month, day, hour, minute, second;
  bool operator==(const UtcTime&) const = default;
};

void PrintTo(const UtcTime& t, std::ostream* out) {
  *out << t.year << '-' << t.month << '-' << t.day << ' ' << t.hour << ':' << t.minute << ':'
       << t.second;
}

// The calendar time of a 32-bit seconds word, widened without sign extension.
UtcTime utcOfSecondsWord(std::uint32_t seconds) {
  const time_t value = static_cast<time_t>(seconds);
  std::tm tm{};
  if (gmtime_r(&value, &tm) == nullptr) return {};
  return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
}

TEST(PlatformAbi, SecondsPastTheSigned32BitRangeConvertTo2038) {
  EXPECT_EQ(utcOfSecondsWord(0x7FFFFFFFu), (UtcTime{2038, 1, 19, 3, 14, 7}));
  EXPECT_EQ(utcOfSecondsWord(0x80000000u), (UtcTime{2038, 1, 19, 3, 14, 8}));
}

TEST(PlatformAbi, TheLargestSecondsWordConvertsTo2106) {
  EXPECT_EQ(utcOfSecondsWord(0xFFFFFFFFu), (UtcTime{2106, 2, 7, 6, 28, 15}));
}

TEST(PlatformAbi, TimeRoundTripsPast2038) {
  std::tm tm{};
  tm.tm_year = 2100 - 1900;
  tm.tm_mon = 0;
  tm.tm_mday = 1;
  const time_t value = timegm(&tm);
  EXPECT_EQ(static_cast<long long>(value), 4102444800LL);
}

}  // namespace
