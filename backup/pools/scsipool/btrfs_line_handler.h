#pragma once
// Parsers of what the Btrfs tools print, one line at a time. They only store what they read: no command is
// run here.

#include <ace/Basic_Types.h>

#include <string>

#include "backup/pools/scsipool/fs_info.h"
#include "platform/process/text_process_handler.h"

namespace scsi_pool {

// A size as the Btrfs tools print it ("16.00KiB" ... "1.50PiB") in bytes, exact to two decimal places. False
// for anything else, plain bytes ("0.00B") included.
bool size_convert(const std::string& str, ACE_UINT64& size);
// The same as decimal text; a text that does not end in "iB" is taken over as it is.
bool size_convert(const std::string& str, std::string& out);

// `btrfs qgroup show`: {level, qgroupid, rfer, excl} for each quota group, all text, sizes in bytes.
class QuotaGroup_Line_Handler : public Text_Process_Handler {
 public:
  explicit QuotaGroup_Line_Handler(FS_Info_List& groups) : groups_(groups) {}
  int handle_stdout_line(const char* line, std::size_t len) override;

 private:
  FS_Info_List& groups_;
};

// `btrfs subvolume list -pu`: {subvol_id, path} for each subvolume, both text.
class List_Subvolume_Line_Handler : public Text_Process_Handler {
 public:
  explicit List_Subvolume_Line_Handler(FS_Info_List& info) : info_(info) {}
  int handle_stdout_line(const char* line, std::size_t len) override;

 private:
  FS_Info_List& info_;
};

// `btrfs subvolume show`: the creation time, the flags and the name.
class Btrfs_Show_Line_Handler : public Text_Process_Handler {
 public:
  Btrfs_Show_Line_Handler(std::string& ctime, std::string& flags, std::string& name)
      : ctime_(ctime), flags_(flags), name_(name) {}
  int handle_stdout_line(const char* line, std::size_t len) override;

 private:
  std::string& ctime_;
  std::string& flags_;
  std::string& name_;
};

// `btrfs subvolume show`: the received UUID; left as it is for a subvolume that was not received.
class Btrfs_Received_Line_Handler : public Text_Process_Handler {
 public:
  explicit Btrfs_Received_Line_Handler(std::string& uuid) : uuid_(uuid) {}
  int handle_stdout_line(const char* line, std::size_t len) override;

 private:
  std::string& uuid_;
};

// `btrfs filesystem df`: adds up used data and all other chunks in full, twice for the DUP profile.
class Btrfs_Df_Line_Handler : public Text_Process_Handler {
 public:
  explicit Btrfs_Df_Line_Handler(ACE_UINT64& size) : size_(size) {}
  int handle_stdout_line(const char* line, std::size_t len) override;

 private:
  ACE_UINT64& size_;
};

}  // namespace scsi_pool
