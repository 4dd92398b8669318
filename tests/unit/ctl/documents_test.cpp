// The manual page and the completion know the commands and options that there are, and no others.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/regex.hpp>
#include <fstream>
#include <map>
#include <set>

#include "ctl/commands.h"

namespace {

// "area command" and its options.
using Commands = std::map<std::string, std::set<std::string>>;

void collect(CLI::App& app, const std::string& words, Commands& all) {
  bool command = true;
  for (CLI::App* part : app.get_subcommands([](CLI::App*) { return true; })) {
    const std::string& name = part->get_name();
    if (!name.empty()) command = false;  // without a name it is a group of options
    collect(*part, words + (words.empty() || name.empty() ? "" : " ") + name, all);
  }
  if (!command) return;
  std::set<std::string>& options = all[words];
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames())
      if (name != "help") options.insert("--" + name);
  }
}

// One line: the command in small letters at its beginning, options anywhere.
void take_line(const std::string& line, Commands& all) {
  static const boost::regex head("^[a-z-]+( [a-z-]+)*"), option("--[a-z-]+");
  boost::smatch words;
  if (!boost::regex_search(line, words, head)) return;
  std::set<std::string>& options = all[words[0]];
  for (boost::sregex_iterator one(line.begin(), line.end(), option), end; one != end; ++one)
    options.insert(one->str());
}

Commands from_manual() {
  std::ifstream file(TEST_SUPPORT_DIR "/../../docs/scsipoolctl.8");
  const boost::regex command("\\\\fB[a-z].*"), font("\\\\f[BIR]"), hyphen("\\\\-");
  Commands all;
  for (std::string line; std::getline(file, line);)
    if (boost::regex_match(line, command))
      take_line(boost::regex_replace(boost::regex_replace(line, font, ""), hyphen, "-"), all);
  return all;
}

Commands from_completion() {
  std::ifstream file(TEST_SUPPORT_DIR "/../../ctl/scsipoolctl.bash");
  const boost::regex command("[a-z -]+\\|[A-Z. ]*(--[a-z -]+)?");
  Commands all;
  for (std::string line; std::getline(file, line);)
    if (boost::regex_match(line, command)) take_line(line, all);
  return all;
}

TEST(Documents, KnowEveryCommandAndOption) {
  CLI::App app;
  ctl::Action action;
  ctl::add_all_commands(app, action);
  Commands there;
  collect(app, "", there);
  EXPECT_GT(there.size(), 50u);
  EXPECT_THAT(from_manual(), ::testing::ContainerEq(there));
  EXPECT_THAT(from_completion(), ::testing::ContainerEq(there));
}

}  // namespace
