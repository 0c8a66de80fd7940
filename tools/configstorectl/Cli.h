// configstorectl: one subcommand per exported family of the library.
//
// Each family lives in its own cmd_*.cpp and registers its subcommands with a static Registrar, so
// adding a family touches no other file. The rules every subcommand shares are kept in main.cpp,
// not in the subcommands:
//   - "--help" / "-h" anywhere before "--": usage and help on standard output, exit 0;
//   - "--" ends the options, the same in every subcommand (the argument helpers below);
//   - the global options "--root DIR", "-v" and "--json" are taken before or after the subcommand
//     (before "--"); "--json" sets Invocation::json; a subcommand registered with printsData = false
//     refuses it as bad usage;
//   - exit status 0 success; 1 failure, with "configstorectl NAME: error CODE: MESSAGE" on standard
//     error; 2 bad usage (a UsageError), with the usage line on standard error; 3 nothing matched
//     the names given (NothingMatched); with --json a failure or bad usage that printed no document
//     writes {"error": {"code", "message", "cause"}} on standard output;
//   - colour (Paint) only when standard output is a terminal, NO_COLOR is unset and --json is off.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "errors/Json.h"
#include "errors/Printable.h"

namespace cli {

// Thrown for bad usage: printed with the subcommand's usage, exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Thrown by a listing after it printed its (empty) result when the names it was given matched
// nothing: "configstorectl NAME: nothing matches WHAT" on standard error, exit status 3.
struct NothingMatched : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Invocation {
  std::vector<std::string> args;  // after the subcommand name, without the global options
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
  // true: the run's return is the exit status itself (diff: 1 when the files differ), and a failure
  // exits 2 so that it cannot be taken for that answer.
  bool answersWithStatus = false;
};

struct Registrar {
  explicit Registrar(Command command);
};

// Every registered subcommand, in registration order.
const std::vector<Command>& Commands();

// Writes a JSON value to standard output, pretty-printed, with a final newline. A string or member
// name that is not UTF-8 is written Printable ("\xNN" for its bad bytes): the output is always JSON.
void PrintJson(const rapidjson::Value& value);
// The text PrintJson writes.
std::string PrettyJson(const rapidjson::Value& value);

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

// A ConfigStoreException 2000 "no WHAT at PATH (it is made at boot by load, or by create-store)"
// when the store database at `path` does not exist: for subcommands that must not create one.
void RequireStore(const std::string& path, const char* what);

// Columns a terminal gives UTF-8 text: East Asian wide and fullwidth characters and emoji take
// two, combining marks and zero-width characters none, a byte that starts no character one.
size_t DisplayWidth(std::string_view text);

// Rows under a bold heading, cells made Printable, each column as wide as its widest cell on a
// terminal (DisplayWidth), two spaces apart; the last column is not padded.
void PrintTable(const std::vector<std::string>& heading, const std::vector<std::vector<std::string>>& rows);

enum class Style { Bold, Red, Green, Yellow };
// `text` wrapped in the style's terminal escape sequence when colour is on, else `text` itself.
std::string Paint(Style style, std::string_view text);

// Argument helpers, the only readers of Invocation::args, so every subcommand treats options alike:
// an option ("-x", "--name") is taken only before the first "--"; after it every word is a value,
// "--" included; an option the subcommand does not take is bad usage ("unknown option '-x'").
// TakeFlag removes the first `flag` before "--" and says whether there was one.
bool TakeFlag(std::vector<std::string>& args, const std::string& flag);
// Removes the first "`flag` VALUE" before "--" and returns VALUE; nullopt when there is none, a
// UsageError when the value is missing or empty.
std::optional<std::string> TakeOption(std::vector<std::string>& args, const std::string& flag);
// Removes and returns the next value. When none is left: `otherwise` if given, else a UsageError
// "missing WHAT".
std::string TakeArg(std::vector<std::string>& args, const char* what, const char* otherwise = nullptr);
// A UsageError for any value or option left.
void ExpectNoMoreArgs(const std::vector<std::string>& args);
// The values left, in order, without the "--".
std::vector<std::string> Positionals(const std::vector<std::string>& args);

// The library's setters of boot flags do not report a write the store did not take (another writer
// held the store past the busy time-out, say; the logged error says why). A command that set a flag
// reads it back and fails (ConfigStoreException 2000 naming the key and both values) when the store
// does not hold what was asked for.
void ExpectStored(const std::string& key, const std::string& stored, const std::string& wanted);

}  // namespace cli
