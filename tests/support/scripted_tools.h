#pragma once
// Fake tools in a temporary folder put first on PATH. They record their command line verbatim and play back
// the output and exit status of the next expectation. A command that nobody expected and an expectation that
// nobody used fail the test.
//
//   Scripted_Tools tools({"btrfs", "mount"});
//   tools.expect("btrfs subvolume create /mnt/p/v1");
//   tools.expect("btrfs subvolume list -pu /mnt/p").output(recording("btrfs-6.2/subvolume-list.txt"));
//   ... run the code ...
//   // the destructor checks; tools.verify() checks at once
//
// A command line is recorded as the words that the tool got, joined by blanks; a word that holds a blank or
// is empty stands in single quotes. Expectations are met in their order.

#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

class Scripted_Tools {
 public:
  class Expectation {
   public:
    Expectation& output(const std::string& text);  // on standard output
    Expectation& errors(const std::string& text);  // on standard error
    Expectation& status(int exit_status);
    // Runs this shell text first (with the tool's arguments as $1...), to make files appear and the like.
    Expectation& runs(const std::string& shell_text);

   private:
    friend class Scripted_Tools;
    explicit Expectation(std::string folder) : folder_(std::move(folder)) {}
    Expectation& put(const char* file, const std::string& text);
    std::string folder_;
  };

  explicit Scripted_Tools(const std::vector<std::string>& tools);
  ~Scripted_Tools();

  Expectation expect(const std::string& command_line);
  // What each command gets that begins so and is not expected: for tests that count commands() and leave
  // their order open. verify() then does not look at unexpected ones.
  Expectation answer(const std::string& beginning);
  // The command lines so far.
  std::vector<std::string> commands() const;
  // Fails the test for each unexpected command and unused expectation. The destructor calls it unless it was
  // called.
  void verify();
  const std::string& folder() const { return dir_.path(); }

 private:
  Temp_Dir dir_;
  std::string old_path_;
  Expectation scripted(const std::string& folder, const std::string& line);

  std::vector<std::string> expected_;
  unsigned answers_ = 0;
  bool verified_ = false;
};

// A recorded tool output under tests/support/recordings, without its leading comment lines ('#').
std::string recording(const std::string& name);
