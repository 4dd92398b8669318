#pragma once
// What all objects of the configfs library share: the options, the tree, the saved record and the change
// lock.

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "platform/base/file.h"
#include "platform/lio/configfs.h"
#include "platform/lio/lio_library.h"
#include "platform/lio/lio_names.h"
#include "platform/lio/lio_record.h"

namespace lio {

// A kernel fabric: the folder below the target root and how names look in it.
struct Fabric {
  LIO_Target_Type type = TYPE_UNKNOWN;
  std::string folder;
  Name_Form form = Name_Form::iscsi;
};

class Context {
 public:
  Context(const LIO_Options& options, std::shared_ptr<Configfs> tree);

  Configfs& tree() { return *tree_; }
  Record& record() { return saved_.record(); }
  Fabric fabric(LIO_Target_Type type) const;
  // Both fabrics, one if they are the same folder.
  std::vector<Fabric> fabrics() const;

  // The fabric's folder is there. False, with a message that says what is missing, otherwise.
  bool ensure_fabric(const Fabric& fabric);
  // A Fibre Channel target is a port of this machine. True for other fabrics.
  bool ensure_port(const Fabric& fabric, const std::string& name);
  // The folders of the LUNs that were made here and whose group has not been enabled since: those of an
  // export that a crash cut short are not among them. Under the change lock.
  std::set<std::string>& unsettled() { return unsettled_; }
  // Alters the record and saves it. On failure the record is read again before the next change.
  bool save(const std::function<void(Record&)>& alter);
  // The same for what a crash may forget because it counts as a leftover then: inside a change of several
  // steps the file is written with the next save() or when the change ends.
  bool save_later(const std::function<void(Record&)>& alter);

  // The change lock, which a thread may take again. enter() also makes the kernel ready, unless it is only
  // looked at, and reads the record.
  bool enter(bool kernel = true);
  void leave();

 private:
  bool wait_for_file();
  bool prepare();
  void make_reservation_folders();

  LIO_Options options_;
  std::shared_ptr<Configfs> tree_;
  Saved_File saved_;
  std::set<std::string> unsettled_;
  std::recursive_mutex mutex_;
  unsigned depth_ = 0;
  bool unsaved_ = false;
  platform::Lock_File lock_file_;
  bool prepared_ = false;
  bool fc_module_tried_ = false;
};

using Context_ptr = std::shared_ptr<Context>;

class Change : public LIO_Change_Lock {
 public:
  explicit Change(Context_ptr context, bool kernel = true)
      : context_(std::move(context)), held_(context_->enter(kernel)) {}
  ~Change() override {
    if (held_) context_->leave();
  }
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;
  bool held() const { return held_; }

 private:
  Context_ptr context_;
  bool held_;
};

}  // namespace lio
