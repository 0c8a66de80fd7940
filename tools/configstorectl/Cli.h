// configstorectl: one subcommand per exported family of the library.
//
// Each family lives in its own cmd_*.cpp and registers its subcommands with a static Registrar, so
// adding a family touches no other file. Exit status: 0 success, 1 failure (the error's code and
// message on standard error), 2 bad usage.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "configstore/frame/core/Json.h"

namespace cli {

// Thrown for bad usage: printed with the subcommand's usage, exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Invocation {
  std::vector<std::string> args;  // after the subcommand name
  bool json = false;              // --json: one JSON document on standard output
};

struct Command {
  std::string name;
  std::string usage;    // "metrics [--rows]"
  std::string summary;  // one line for the command list
  std::string help;     // longer text for "SUBCOMMAND --help"
  std::function<int(const Invocation&)> run;
};

struct Registrar {
  explicit Registrar(Command command);
};

const std::vector<Command>& Commands();

// Writes a JSON value to standard output, pretty-printed, with a final newline.
void PrintJson(const rapidjson::Value& value);

// Flag helpers for subcommand arguments.
bool TakeFlag(std::vector<std::string>& args, const std::string& flag);
void ExpectNoMoreArgs(const std::vector<std::string>& args);

}  // namespace cli
