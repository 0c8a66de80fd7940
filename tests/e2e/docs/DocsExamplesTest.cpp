// The examples of the documentation, run top to bottom on a fresh copy of the sample host and
// compared with what they show.
//
// A fenced block whose first line begins with "$ " is an example: each "$ " line is a command, run
// through /bin/sh, and the lines up to the next "$ " line are its standard output and error. A
// ```sh block is a step that shows no output (the guide's first one copies the sample host), run
// through /bin/sh as it stands. Every other block is left alone. "/tmp/" stands for a scratch
// directory (the guide's host root is /tmp/host, and TALVEX_ROOT names it); what differs from run
// to run (times, durations) is masked.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Sandbox.h"

namespace {

struct Step {
  int line;             // of the command in the markdown
  std::string command;  // "" for a ```sh block, whose text is in `script`
  std::string script;
  std::string expected;
};

std::vector<Step> Examples(const std::string& markdown) {
  std::vector<Step> steps;
  std::istringstream in(markdown);
  std::string line, fence;
  int number = 0;
  bool first = false, example = false;
  while (std::getline(in, line)) {
    ++number;
    if (line.rfind("```", 0) == 0) {
      fence = fence.empty() ? line : "";
      first = fence == "```";
      example = false;
      if (fence == "```sh") steps.push_back({number + 1, "", "", ""});
    } else if (fence == "```sh") {
      steps.back().script += line + "\n";
    } else if (first || example) {
      if (first) example = line.rfind("$ ", 0) == 0;
      first = false;
      if (example && line.rfind("$ ", 0) == 0) steps.push_back({number, line.substr(2), "", ""});
      else if (example) steps.back().expected += line + "\n";
    }
  }
  return steps;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// Times, dates and durations masked (with the blanks around a duration, whose width varies in a
// table); trailing blanks dropped.
std::string Masked(const std::string& text) {
  static const std::regex time(R"(\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\dZ?)"), ms(R"( +\d+\.\d ms *)"), trailing(R"([ \t]+\n)");
  std::string masked = std::regex_replace(std::regex_replace(text, time, "<time>"), ms, " <ms> ");
  return std::regex_replace(masked, trailing, "\n");
}

// Runs `script` through /bin/sh in the source tree, with the previous exit status as $?.
std::pair<int, std::string> Shell(const std::string& script, const std::string& scratch, int previous) {
  std::string file = scratch + "/.step.sh";
  std::ofstream(file) << "cd '" << cstest::SourcePath("") << "' || exit 99\n(exit " << previous << ")\n"
                      << script << "\n";
  FILE* pipe = popen(("/bin/sh '" + file + "' 2>&1").c_str(), "r");
  std::string out;
  char buffer[4096];
  for (size_t n; pipe != nullptr && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  int status = pipe == nullptr ? -1 : pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

class DocsExamplesTest : public testing::TestWithParam<const char*> {};

TEST_P(DocsExamplesTest, EveryExampleShowsWhatTheToolsPrint) {
  std::ifstream file(cstest::SourcePath(GetParam()));
  std::string markdown((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::vector<Step> steps = Examples(markdown);
  ASSERT_FALSE(steps.empty()) << GetParam() << " has no examples";

  char pattern[] = "/tmp/cs-docs-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string scratch = pattern;
  const std::string bin = cstest::BinaryPath("tools/configstorectl") + ":" + cstest::BinaryPath("tools/plonsh");
  setenv("PATH", (bin + ":" + getenv("PATH")).c_str(), 1);
  setenv("TALVEX_ROOT", (scratch + "/host").c_str(), 1);
  unsetenv("NO_COLOR");  // output goes to a pipe: never coloured anyway

  int status = 0;
  for (const Step& step : steps) {
    const std::string text = step.command.empty() ? step.script : step.command;
    auto [exit, out] = Shell(Replace(text, "/tmp/", scratch + "/"), scratch, status);
    status = exit;
    std::string shown = Masked(Replace(out, scratch + "/", "/tmp/"));
    if (step.command.empty()) {
      EXPECT_EQ(exit, 0) << GetParam() << ":" << step.line << ": the step failed:\n" << text << shown;
    } else {
      EXPECT_EQ(shown, Masked(step.expected)) << GetParam() << ":" << step.line << ": $ " << step.command;
    }
  }
  std::filesystem::remove_all(scratch);
}

INSTANTIATE_TEST_SUITE_P(Docs, DocsExamplesTest, testing::Values("docs/operator-guide.md", "docs/cli.md", "docs/plonsh.md"));

}  // namespace
