#pragma once
// The saved target configuration: targets with their mode, LUN numbers, serial numbers, ACLs and backstores,
// kept in a file at every change, so that a reboot does not lose an export. Stateless: works on the installed
// library. Nothing is ever dropped from the file because the kernel does not have it or it could not be
// rebuilt.

#include "platform/lio/lio_report.h"

class LIO_Saved_Config {
 public:
  // All saved LUNs; false when the file cannot be read or is damaged. A file that does not exist is empty.
  static bool list_saved(std::vector<LIO_Export>& exports);
  // All LUNs in the kernel that this system made.
  static bool list_kernel(std::vector<LIO_Export>& exports);
  // Rebuilds in the kernel what is saved and not there, each LUN for itself, and brings modes, portals and
  // ACLs to the saved state; leftovers and LUNs that are there are left alone. `report` gets one finding for
  // each thing that was missing, `mended` or not. True when all is there now. May be called again to retry
  // what failed (a pool that came late).
  static bool restore(LIO_Report& report);
  // Appends every difference between the saved configuration and the kernel, and everything that a crash left
  // behind. Changes nothing. True when the comparison could be made.
  static bool compare(LIO_Report& report);
  // Removes what a crash left behind, then restores. An export in progress looks like a leftover, so whoever
  // makes one holds LIO_Library::lock_changes() meanwhile. `report` gets all that was found. True when
  // nothing is left.
  static bool repair(LIO_Report& report);
  // Drops the LUN on that path from the saved configuration (an export that nobody wants any more and that is
  // not in the kernel). True when it was not there.
  static bool forget(const std::string& path);
};
