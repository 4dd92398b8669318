#include "tests/support/scripted_tools.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

// Each call takes the next number (mkdir is atomic), records its command line and plays back the expectation
// of that number when the words are the expected ones.
constexpr const char* SCRIPT = R"sh(#!/bin/sh
PATH=/usr/sbin:/usr/bin:/sbin:/bin
here=FOLDER
line=${0##*/}
for word in "$@"; do
  case $word in
    ''|*' '*) line="$line '$word'" ;;
    *) line="$line $word" ;;
  esac
done
number=1
while ! mkdir "$here/.call.$number" 2>/dev/null; do number=$((number + 1)); done
printf '%s\n' "$line" > "$here/.call.$number/line"
want="$here/.expect.$number"
if [ ! -d "$want" ]; then
  for one in "$here"/.answer.*; do
    if [ -d "$one" ] && [ "${line#"$(cat "$one/line")"}" != "$line" ]; then want=$one; line=; break; fi
  done
fi
if [ -n "$line" ] && { [ ! -d "$want" ] || [ "$line" != "$(cat "$want/line")" ]; }; then
  echo "unexpected command: $line" >&2
  exit 99
fi
if [ -f "$want/runs" ]; then . "$want/runs"; fi
if [ -f "$want/output" ]; then cat "$want/output"; fi
if [ -f "$want/errors" ]; then cat "$want/errors" >&2; fi
if [ -f "$want/status" ]; then exit "$(cat "$want/status")"; fi
exit 0
)sh";

void write_text(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

bool read_text(const std::string& path, std::string& text) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  std::ostringstream content;
  content << file.rdbuf();
  text = content.str();
  return true;
}

}  // namespace

Scripted_Tools::Expectation& Scripted_Tools::Expectation::put(const char* file, const std::string& text) {
  write_text(folder_ + "/" + file, text);
  return *this;
}

Scripted_Tools::Expectation& Scripted_Tools::Expectation::output(const std::string& text) {
  return put("output", text);
}

Scripted_Tools::Expectation& Scripted_Tools::Expectation::errors(const std::string& text) {
  return put("errors", text);
}

Scripted_Tools::Expectation& Scripted_Tools::Expectation::status(int exit_status) {
  return put("status", std::to_string(exit_status));
}

Scripted_Tools::Expectation& Scripted_Tools::Expectation::runs(const std::string& shell_text) {
  return put("runs", shell_text + "\n");
}

Scripted_Tools::Scripted_Tools(const std::vector<std::string>& tools) {
  const char* path = std::getenv("PATH");
  old_path_ = path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin";
  std::string script = SCRIPT;
  script.replace(script.find("FOLDER"), 6, "'" + dir_.path() + "'");
  for (const std::string& tool : tools) {
    write_text(dir_ / tool, script);
    ::chmod((dir_ / tool).c_str(), 0755);
  }
  ::setenv("PATH", (dir_.path() + ":" + old_path_).c_str(), 1);
}

Scripted_Tools::~Scripted_Tools() {
  if (!verified_) verify();
  ::setenv("PATH", old_path_.c_str(), 1);
}

Scripted_Tools::Expectation Scripted_Tools::expect(const std::string& command_line) {
  expected_.push_back(command_line);
  return scripted(dir_ / (".expect." + std::to_string(expected_.size())), command_line);
}

Scripted_Tools::Expectation Scripted_Tools::answer(const std::string& beginning) {
  return scripted(dir_ / (".answer." + std::to_string(++answers_)), beginning);
}

Scripted_Tools::Expectation Scripted_Tools::scripted(const std::string& folder, const std::string& line) {
  std::filesystem::create_directory(folder);
  write_text(folder + "/line", line + "\n");
  return Expectation(folder);
}

std::vector<std::string> Scripted_Tools::commands() const {
  std::vector<std::string> lines;
  std::string text;
  while (read_text(dir_ / (".call." + std::to_string(lines.size() + 1)) + "/line", text))
    lines.push_back(text.substr(0, text.size() - 1));
  return lines;
}

void Scripted_Tools::verify() {
  verified_ = true;
  std::vector<std::string> done = commands();
  if (answers_ != 0 && done.size() > expected_.size()) done.resize(expected_.size());
  EXPECT_EQ(expected_, done);
}

std::string recording(const std::string& name) {
  std::string text;
  if (!read_text(std::string(TEST_SUPPORT_DIR) + "/recordings/" + name, text))
    throw std::runtime_error("no recording " + name);
  std::size_t begin = 0;
  while (begin < text.size() && text[begin] == '#') {
    const std::size_t end = text.find('\n', begin);
    if (end == std::string::npos) return "";
    begin = end + 1;
  }
  return text.substr(begin);
}
