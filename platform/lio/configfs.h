#pragma once
// The kernel target's tree: the one place that touches it. Paths are relative to <root>/target. The plain
// operations answer 0 or an errno value and log nothing; the checked ones log the path and the error, once.
// Tests override the plain ones.

#include <string>
#include <vector>

namespace lio {

// Differs whenever something has been made or removed in a folder.
struct Folder_State {
  unsigned long inode = 0;
  unsigned long links = 0;  // one more for each folder in it
  long seconds = 0;
  long nanoseconds = 0;

  bool operator==(const Folder_State& other) const {
    return inode == other.inode && links == other.links && seconds == other.seconds &&
           nanoseconds == other.nanoseconds;
  }
};

class Configfs {
 public:
  explicit Configfs(std::string root) : root_(std::move(root)) {}
  virtual ~Configfs() = default;

  const std::string& root() const { return root_; }
  std::string full(const std::string& path) const { return root_ + "/target/" + path; }

  // One write(2) of the whole value: the kernel takes each as a request of its own.
  virtual int write(const std::string& path, const std::string& value);
  virtual int make_folder(const std::string& path);
  virtual int remove_folder(const std::string& path);
  virtual int make_link(const std::string& to, const std::string& path);
  virtual int remove_link(const std::string& path);
  // The text without the newline at its end.
  virtual int read(const std::string& path, std::string& value) const;
  // Where the link points, from the kernel's relative form: as many of the last components as asked for.
  virtual int read_link(const std::string& path, unsigned components, std::string& to) const;
  virtual int list(const std::string& path, std::vector<std::string>& names) const;
  virtual bool exists(const std::string& path) const;
  // Of a folder; all 0 when it is not there.
  virtual Folder_State state(const std::string& folder) const;

  // Writes and logs a failure.
  bool set(const std::string& path, const std::string& value);
  // Writes where another value is read, and reads back; an attribute that does not exist is passed over.
  bool settle(const std::string& path, const std::string& value);
  // The folder is there afterwards; `made` tells whether it is new.
  bool ensure_folder(const std::string& path, bool* made = nullptr);
  // The folder or link is gone afterwards, which is read back; true also when it was not there.
  bool clear_folder(const std::string& path);
  bool clear_link(const std::string& path);
  // An attribute's text; empty when it cannot be read.
  std::string value(const std::string& path) const;
  // Names below a folder, sorted; none when it is not there.
  std::vector<std::string> names(const std::string& path) const;

 private:
  std::string root_;
};

}  // namespace lio
