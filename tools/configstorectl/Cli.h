// configstorectl: one subcommand per exported family of the library.
//
// Each family lives in its own cmd_*.cpp and registers its subcommands with a static Registrar, so
// adding a family touches no other file. The rules every subcommand shares are kept in main.cpp,
// not in the subcommands:
//   - "--help" / "-h" anywhere before "--": usage and help on standard output, exit 0;
//   - "--json" before or after the subcommand sets Invocation::json; a subcommand registered with
//     printsData = false refuses it as bad usage;
//   - exit status 0 success; 1 failure, with "configstorectl NAME: error CODE: MESSAGE" on standard
//     error; 2 bad usage (a UsageError), with the usage line on standard error;
//   - colour (Paint) only when standard output is a terminal, NO_COLOR is unset and --json is off.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "configstore/frame/core/Json.h"
#include "configstore/frame/core/Printable.h"

namespace cli {

// Thrown for bad usage: printed with the subcommand's usage, exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Invocation {
  std::vector<std::string> args;  // after the subcommand name, without --help, -h and --json
  bool json = false;              // --json: one JSON document on standard output
};

// A subcommand's run returns 0 on success. It reports a failure by throwing: a ConfigStoreException
// is printed with its code, any other exception as code 2000, and a UsageError as bad usage. A
// non-zero return is reported as a failure without a message of its own (exit status 1).
struct Command {
  std::string name;
  std::string usage;    // "metrics [--rows]", without the global options and without [--json]
  std::string summary;  // one line for the command list
  std::string help;     // longer text for "SUBCOMMAND --help"
  std::function<int(const Invocation&)> run;
  bool printsData = true;  // false: the subcommand prints no result, and --json is bad usage
};

struct Registrar {
  explicit Registrar(Command command);
};

// Every registered subcommand, in registration order.
const std::vector<Command>& Commands();

// Writes a JSON value to standard output, pretty-printed, with a final newline. A string or member
// name that is not UTF-8 is written Printable ("\xNN" for its bad bytes): the output is always JSON.
void PrintJson(const rapidjson::Value& value);

// A JSON string copied from `text` (embedded NULs kept).
rapidjson::Value JsonText(std::string_view text, rapidjson::Document::AllocatorType& allocator);

// Compact JSON text of `value` (control characters escaped), for one-line display.
std::string CompactJson(const rapidjson::Value& value);

// A value as the store keeps it (JSON text; nullopt for SQL NULL, "" for none), for output.
// StoredValueJson: null for none, the parsed JSON, or a JSON string when the text is not JSON.
// StoredValueText: "-" for none, compact JSON, or the text made printable when it is not JSON.
rapidjson::Value StoredValueJson(const std::optional<std::string>& stored,
                                 rapidjson::Document::AllocatorType& allocator);
std::string StoredValueText(const std::optional<std::string>& stored);

// `text` safe to show on a terminal: control bytes (below 0x20, and 0x7f) written as "\xNN".
using QorConfigStore::Printable;

enum class Style { Bold, Red, Green, Yellow };
// `text` wrapped in the style's terminal escape sequence when colour is on, else `text` itself.
std::string Paint(Style style, std::string_view text);

// Argument helpers. "--" ends the options: nothing after it is taken as a flag.
// TakeFlag removes the first `flag` before "--" and says whether there was one.
bool TakeFlag(std::vector<std::string>& args, const std::string& flag);
// Removes and returns the first argument; a UsageError "missing WHAT" when there is none.
std::string TakeArg(std::vector<std::string>& args, const char* what);
void ExpectNoMoreArgs(const std::vector<std::string>& args);
// The arguments as plain values: a UsageError for an option ("-x") before "--"; the "--" is dropped,
// so values that begin with "-" can follow it.
std::vector<std::string> Positionals(const std::vector<std::string>& args);

}  // namespace cli
