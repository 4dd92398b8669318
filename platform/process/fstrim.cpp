#include "platform/process/fstrim.h"

#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/base/names.h"
#include "platform/process/subprocess.h"
#include "platform/process/text_process_handler.h"
#include "platform/process/tool_options.h"

namespace platform {

namespace {

class Lines : public Text_Process_Handler {
 public:
  int handle_stdout_line(const char* line, std::size_t len) override {
    lines.emplace_back(line, len);
    return 0;
  }

  std::vector<std::string> lines;
};

// The lines that a tool prints. False when it fails.
bool lines_of(const std::string& command, std::vector<std::string>& lines) {
  Tool_Options options(command);
  Lines reader;
  if (reader.call(8, options) != 0) return false;
  lines = std::move(reader.lines);
  return true;
}

// A folder that is there as long as the object.
class Mount_Folder {
 public:
  Mount_Folder() : path_(is_directory("/run") ? "/run/scsipool-trim.XXXXXX" : "/tmp/scsipool-trim.XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) path_.clear();
  }
  ~Mount_Folder() {
    if (!path_.empty()) ::rmdir(path_.c_str());
  }
  Mount_Folder(const Mount_Folder&) = delete;
  Mount_Folder& operator=(const Mount_Folder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A loop device on an image file, detached at the end.
class Loop_Device {
 public:
  explicit Loop_Device(const std::string& file) {
    std::vector<std::string> lines;
    if (lines_of(format_command("losetup -P --show -f \"%s\"", file.c_str()), lines) && lines.size() == 1)
      device_ = lines[0];
  }
  ~Loop_Device() {
    if (!device_.empty()) subprocess::call("losetup -d \"%s\"", device_.c_str());
  }
  Loop_Device(const Loop_Device&) = delete;
  Loop_Device& operator=(const Loop_Device&) = delete;
  const std::string& device() const { return device_; }

 private:
  std::string device_;
};

// The type of the filesystem directly on a device; empty when there is none that can be mounted.
std::string filesystem_on(const std::string& device) {
  std::vector<std::string> lines;
  // blkid fails when it finds nothing.
  if (!lines_of(format_command("blkid -p -o export \"%s\"", device.c_str()), lines)) return "";
  std::string type;
  bool filesystem = false;
  for (const std::string& line : lines) {
    if (line.compare(0, 5, "TYPE=") == 0) type = line.substr(5);
    if (line == "USAGE=filesystem") filesystem = true;
  }
  return filesystem ? type : "";
}

// Mounted in a mount namespace of its own, which nobody else sees and which goes even when the process is
// killed. Two XFS filesystems with one identity (a clone and its origin) cannot be mounted together without
// "nouuid".
bool trim_filesystem(const std::string& device, const std::string& type, const std::string& folder) {
  const std::string options = type == "xfs" ? "nosuid,nodev,noexec,nouuid" : "nosuid,nodev,noexec";
  std::string errors;
  const int status = subprocess::call_stderr(
      errors,
      "unshare --mount --propagation private sh -c 'mount -t \"$1\" -o \"$2\" \"$3\" \"$4\" || exit 1; "
      "fstrim \"$4\"; status=$?; umount \"$4\" && exit $status' trim \"%s\" \"%s\" \"%s\" \"%s\"",
      type.c_str(), options.c_str(), device.c_str(), folder.c_str());
  if (status == 0) return true;
  return LOG_FAILURE("Failed to trim %s filesystem on '%s': %s\n", type.c_str(), device.c_str(),
                     errors.c_str());
}

bool trim_device(const std::string& device) {
  std::vector<std::string> nodes;
  if (!lines_of(format_command("lsblk -nrpo NAME \"%s\"", device.c_str()), nodes))
    return LOG_FAILURE("Failed to trim '%s': its partitions cannot be listed\n", device.c_str());
  const Mount_Folder folder;
  if (folder.path().empty())
    return LOG_FAILURE("Failed to trim '%s': no temporary folder, %m\n", device.c_str());
  unsigned found = 0;
  bool all_trimmed = true;
  for (const std::string& node : nodes) {
    const std::string type = filesystem_on(node);
    if (type.empty()) continue;
    ++found;
    all_trimmed = trim_filesystem(node, type, folder.path()) && all_trimmed;
  }
  if (found == 0) return LOG_FAILURE("Failed to trim '%s': no filesystem on it\n", device.c_str());
  return all_trimmed;
}

bool trim_image(const std::string& file) {
  const Loop_Device loop(file);
  if (loop.device().empty()) return LOG_FAILURE("Failed to trim '%s': no loop device\n", file.c_str());
  return trim_device(loop.device());
}

}  // namespace

bool fstrim_all(const std::string& path) {
  std::string why;
  if (!valid_path(path, why)) return LOG_FAILURE("Failed to trim '%s': %s\n", path.c_str(), why.c_str());
  if (is_block_device(path)) return trim_device(path);
  if (is_regular_file(path)) return trim_image(path);
  if (!is_directory(path))
    return LOG_FAILURE("Failed to trim '%s': no such device or folder\n", path.c_str());
  if (subprocess::call("fstrim \"%s\"", path.c_str()) == 0) return true;
  return LOG_FAILURE("Failed to trim '%s': %m\n", path.c_str());
}

}  // namespace platform
