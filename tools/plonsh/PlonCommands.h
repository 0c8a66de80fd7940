// Operator commands over the kernel node tree, shared by the plonsh shell and the plonshd daemon.
//
// A Session runs one command line at a time against the tree under "<root>/sys/plon" and keeps
// its own current directory (a node path, "/" at first). Commands:
//   ls [PATH]                 child names of a tree directory, directories with a trailing '/';
//                             the node paths this host knows are listed even before their files exist
//   cd PATH, pwd              change or show the current directory
//   get PATH [INSTANCE...]    read a node; instance arguments fill the node's instance elements in
//                             order ("get /system/lumafs/inodes/stats 12" is
//                             "get /system/lumafs/inodes/12/stats"). Printable text up to the first
//                             NUL is shown as text, any other record as a hex dump with offsets.
//   set PATH VALUE...         sysAlert takes the message (the words joined with single spaces),
//                             memUsageLimit takes the warning and error per cent
//   help, quit
// Words are separated by blanks; single or double quotes group a word. Paths are node paths:
// relative ones resolve against the current directory, "." is dropped, ".." is refused, and a
// path whose file resolves (symbolic links followed) outside the tree is refused.
// Nothing throws: every failure, an allocation failure included, is an error reply.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace plonsh {

struct Reply {
  bool ok = true;
  std::string text;   // may span lines; no trailing newline
  bool quit = false;  // the command was "quit"
};

class Session {
 public:
  Reply Execute(std::string_view line);
  const std::string& Cwd() const { return cwd_; }

 private:
  std::string cwd_ = "/";
};

// "a; b ;c" -> {"a", " b ", "c"}; a ';' inside quotes stays part of its command.
std::vector<std::string> SplitCommands(std::string_view text);

}  // namespace plonsh
