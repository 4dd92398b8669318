#pragma once
// Builds the paths of configuration files and of mount folders.
//
//   Path_Conf conf("/etc/opt/norvale/tarnkit3/$COMPONENT", 0750);
//   std::string file = conf.path("scsi_pool_mgr.conf");

#include <sys/types.h>

#include <string>

namespace platform {

class Path_Conf {
 public:
  // `folder` may hold $COMPONENT, which becomes this component's name. With a mode other than 0 the folders
  // of a path are made with it when they are missing (make_path).
  explicit Path_Conf(const std::string& folder, mode_t mode = 0);

  const std::string& folder() const { return folder_; }
  // The folder and the parts joined by single slashes; empty parts are left out. Touches nothing.
  std::string path(const std::string& first, const std::string& second = "") const;
  // The same, and the path itself is made as a folder with its missing parents. False with errno set on
  // failure.
  bool make_path(std::string& out, const std::string& first, const std::string& second = "") const;

  // What $COMPONENT stands for ("scsipool" unless set), and a folder put before every path that holds
  // $COMPONENT (none unless set), for tests and for daemons that keep their configuration elsewhere. Set
  // before other threads run.
  static void component(const std::string& name);
  static void root(const std::string& folder);

 private:
  std::string folder_;
  mode_t mode_;
};

}  // namespace platform
