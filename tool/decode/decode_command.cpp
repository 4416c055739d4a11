#include "decode/decode_command.h"

#include <iostream>
#include <memory>
#include <string>

#include "decode/decode_run.h"

namespace {

struct CommandLine {
  std::vector<std::string> files;
  std::string format = "text";
  std::string timeOrder = "auto";
  std::string output;
  std::string lineFormat = nodetrace_tool::kDefaultShowFormat;
};

}  // namespace

void addDecodeCommand(CLI::App& app) {
  namespace decode = nodetrace_tool::decode;
  auto line = std::make_shared<CommandLine>();
  CLI::App* command = app.add_subcommand(
      "decode",
      "Decode dump files written by the trace dump or the dump before reset, on any host (no node needed). "
      "The entries of several files merge into one stream by time.");
  command->add_option("FILE", line->files, "Dump files to decode")->required()->type_name("");
  command
      ->add_option("--format", line->format,
                   "Output: text (lines like show), jsonl (one JSON object per entry), csv, chrome "
                   "(Trace Event JSON for the Perfetto UI and chrome://tracing), or ctf (a CTF 1.8 trace "
                   "directory, given with --output, for babeltrace2 and other CTF readers)")
      ->check(CLI::IsMember({"text", "jsonl", "csv", "chrome", "ctf"}))
      ->capture_default_str();
  command
      ->add_option("--time-order", line->timeOrder,
                   "Byte order of the entries' time stamps: network (trace dump), little (dump before reset), "
                   "or auto (detected per file)")
      ->check(CLI::IsMember({"auto", "network", "little"}))
      ->capture_default_str();
  command->add_option("--output", line->output, "Write to FILE instead of standard output (- is standard output); with --format ctf, the "
                     "directory of the trace (created if missing)");
  command
      ->add_option("--line-format", line->lineFormat,
                   "Layout of a text line, with the directives of the entry formatter (%C %I %P %p %S %T %c %i "
                   "%l %n %t %dt %dut %udt %ut %dz %uz); times in UTC")
      ->capture_default_str();
  command->callback([line] {
    decode::DecodeOptions options;
    options.files = line->files;
    options.format = decode::parseOutputFormat(line->format).value_or(decode::OutputFormat::kText);
    options.timeOrder = decode::parseTimeOrder(line->timeOrder).value_or(decode::TimeOrder::kAuto);
    options.output = line->output;
    options.lineFormat = line->lineFormat;
    const int status = decode::runDecode(options, std::cout, std::cerr);
    std::cout.flush();
    if (status != 0) throw CLI::RuntimeError(status);
  });
}
