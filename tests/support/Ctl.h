// configstorectl run as a real process on a test's host root, for the end-to-end tests.
#pragma once

#include <string>
#include <vector>

#include "errors/Json.h"

namespace cstest {

struct CtlResult {
  int status = -1;  // exit status; -1 when it did not start or did not exit
  std::string out;
  std::string err;
};

// NULL-terminated pointers into `strings`, for exec and spawn.
std::vector<char*> ExecPointers(std::vector<std::string>& strings);

// A configstorectl process started and not yet waited for.
struct CtlProcess {
  int pid = -1;
  std::string out, err;  // files its standard output and error go to
};

// Starts configstorectl on `root` as RunCtl does, its output going to files named by `tag`, so
// that several can run at once on one root.
CtlProcess StartCtl(const std::string& root, const std::vector<std::string>& args, const std::string& tag = "ctl",
                    const std::vector<std::string>& env = {});
CtlResult WaitCtl(const CtlProcess& process);

// Runs configstorectl on `root` without a shell (arguments pass as they are), standard output and
// error captured through files under the root (never a terminal), and waits for it.
CtlResult RunCtl(const std::string& root, const std::vector<std::string>& args,
                 const std::vector<std::string>& env = {});
// The same with the arguments written as one line split at spaces (no quoting).
CtlResult RunCtl(const std::string& root, const std::string& line);

// Standard output parsed as JSON; a parse error is a test failure.
rapidjson::Document CtlJson(const CtlResult& result);

}  // namespace cstest
