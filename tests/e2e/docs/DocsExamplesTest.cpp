// The examples of the documentation, run top to bottom on a fresh copy of the sample host and
// compared with what they show. A fenced block whose first line begins with "$ " is an example:
// each "$ " line is a command, run through /bin/sh, and the lines up to the next "$ " line are its
// standard output and error. A ```sh block is a step that shows no output (the guide's first one
// copies the sample host), run through /bin/sh as it stands. Every other block is left alone.
// "/tmp/" stands for a scratch directory (the guide's host root is /tmp/host, and TALVEX_ROOT
// names it); what differs from run to run (times, durations) is masked.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "tests/support/Sandbox.h"

namespace {

// Times, dates and durations masked (with the blanks around a duration, whose width varies in a
// table); trailing blanks dropped.
std::string Masked(const std::string& text) {
  static const std::regex time(R"(\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\dZ?)"), ms(R"( +\d+\.\d ms *)"), trailing(R"([ \t]+\n)");
  std::string masked = std::regex_replace(std::regex_replace(text, time, "<time>"), ms, " <ms> ");
  return std::regex_replace(masked, trailing, "\n");
}

// Runs `script` through /bin/sh in the source tree, with `status` (the previous step's exit status,
// then this one's) as $?; its output, masked, with the scratch directory shown as /tmp/.
std::string Shell(const std::string& script, const std::string& scratch, int& status) {
  std::ofstream(scratch + "/.step.sh") << "cd '" << cstest::SourcePath("") << "' || exit 99\n(exit " << status << ")\n"
                                       << std::regex_replace(script, std::regex("/tmp/"), scratch + "/") << "\n";
  FILE* pipe = popen(("/bin/sh '" + scratch + "/.step.sh' 2>&1").c_str(), "r");
  std::string out;
  char buffer[4096];
  for (size_t n; pipe != nullptr && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  const int wstatus = pipe == nullptr ? -1 : pclose(pipe);
  status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  return Masked(std::regex_replace(out, std::regex(scratch + "/"), "/tmp/"));
}

class DocsExamplesTest : public testing::TestWithParam<const char*> {};

TEST_P(DocsExamplesTest, EveryExampleShowsWhatTheToolsPrint) {
  char pattern[] = "/tmp/cs-docs-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string scratch = pattern;
  const std::string bin = cstest::BinaryPath("tools/configstorectl") + ":" + cstest::BinaryPath("tools/plonsh");
  setenv("PATH", (bin + ":" + getenv("PATH")).c_str(), 1);
  setenv("TALVEX_ROOT", (scratch + "/host").c_str(), 1);
  unsetenv("NO_COLOR");  // output goes to a pipe: never coloured anyway

  std::ifstream file(cstest::SourcePath(GetParam()));
  std::string line, fence, command, shows;  // the step being read: its command, and what it shows
  int number = 0, opened = 0, at = 0, status = 0, steps = 0;
  bool example = false;
  auto run = [&] {  // the step read so far, if any
    if (command.empty()) return;
    const std::string out = Shell(command, scratch, status), where = GetParam() + (":" + std::to_string(at));
    EXPECT_TRUE(fence == "```sh" ? status == 0 : out == Masked(shows)) << where << ": $ " << command << "\n" << out;
    command = shows = "";
    ++steps;
  };
  while (std::getline(file, line)) {
    ++number;
    if (line.starts_with("```")) {
      run();
      fence = fence.empty() ? line : "";
      opened = at = number;
      example = false;
    } else if (fence == "```sh") {
      command += line + "\n";
    } else if (fence == "```") {
      example = number == opened + 1 ? line.starts_with("$ ") : example;
      if (example && line.starts_with("$ ")) {
        run();
        command = line.substr(2);
        at = number;
      } else if (example) {
        shows += line + "\n";
      }
    }
  }
  EXPECT_GT(steps, 0) << GetParam() << " has no examples";
  std::filesystem::remove_all(scratch);
}

INSTANTIATE_TEST_SUITE_P(Docs, DocsExamplesTest, testing::Values("docs/operator-guide.md", "docs/cli.md", "docs/plonsh.md"));

}  // namespace
