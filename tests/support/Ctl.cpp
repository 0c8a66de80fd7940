#include "tests/support/Ctl.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "tests/support/Sandbox.h"

extern char** environ;

namespace cstest {
namespace {

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// This process's environment without NO_COLOR, plus `extra` entries ("NAME=VALUE").
std::vector<std::string> CtlEnvironment(const std::vector<std::string>& extra) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "NO_COLOR=", 9) != 0) env.emplace_back(*e);
  }
  env.insert(env.end(), extra.begin(), extra.end());
  return env;
}

}  // namespace

std::vector<char*> ExecPointers(std::vector<std::string>& strings) {
  std::vector<char*> p;
  for (std::string& s : strings) p.push_back(s.data());
  p.push_back(nullptr);
  return p;
}

CtlProcess StartCtl(const std::string& root, const std::vector<std::string>& args, const std::string& tag,
                    const std::vector<std::string>& env) {
  std::vector<std::string> argv = {BinaryPath("tools/configstorectl/configstorectl"), "--root", root};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<std::string> envp = CtlEnvironment(env);
  std::vector<char*> argvp = ExecPointers(argv), envpp = ExecPointers(envp);
  CtlProcess process{-1, root + "/" + tag + ".out", root + "/" + tag + ".err"};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, process.out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, process.err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argvp[0], &actions, nullptr, argvp.data(), envpp.data());
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(rc, 0) << std::strerror(rc);
  if (rc == 0) process.pid = pid;
  return process;
}

CtlResult WaitCtl(const CtlProcess& process) {
  int raw = 0;
  if (process.pid < 0 || waitpid(process.pid, &raw, 0) != process.pid) return {-1, "", ""};
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, Slurp(process.out), Slurp(process.err)};
}

CtlResult RunCtl(const std::string& root, const std::vector<std::string>& args, const std::vector<std::string>& env) {
  return WaitCtl(StartCtl(root, args, "ctl", env));
}

CtlResult RunCtl(const std::string& root, const std::string& line) {
  std::vector<std::string> args;
  std::istringstream words(line);
  for (std::string word; words >> word;) args.push_back(word);
  return RunCtl(root, args);
}

rapidjson::Document CtlJson(const CtlResult& result) {
  rapidjson::Document d;
  d.Parse(result.out.c_str());
  EXPECT_FALSE(d.HasParseError()) << "not JSON: " << result.out << result.err;
  return d;
}

}  // namespace cstest
