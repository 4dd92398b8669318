// fs create|list|delete|mount|umount|mount-point|rollback|snapshot ...

#include <memory>

#include "ctl/record.h"
#include "ctl/requests.h"

namespace ctl {

using json_spirit::Object;

namespace {

const char FS_PATH[] = "/svc/r/scsipool/fs";
const char MOUNT_PATH[] = "/svc/r/scsipool/fs/mount";

struct Options {
  std::string name, mount_point, snapshot, retention_type;
  bool link_clone = false, yes = false;
};

template <typename Run>
CLI::App* fs_command(CLI::App& fs, Action& action, const char* name, const char* help,
                     std::shared_ptr<Options> options, Run run) {
  CLI::App* command = pool_command(
      fs, action, name, help,
      [options, run](Session& session, const std::string& pool) { return run(session, pool, *options); });
  command->add_option("NAME", options->name, "Name of the sub filesystem")->required();
  return command;
}

int create(Session& session, const std::string& pool, const Options& options) {
  Object body{{"pool_id", pool}, {"name", options.name}};
  if (!options.mount_point.empty()) body["mount_point"] = options.mount_point;
  if (!options.retention_type.empty()) body["retention_type"] = options.retention_type;
  if (!options.snapshot.empty()) {
    body["snapshot_id"] = options.snapshot;
    body["link_clone"] = options.link_clone;
  }
  return send(session, "POST", FS_PATH, {}, &body, "made sub filesystem " + options.name);
}

int list(Session& session, const std::string& pool) {
  Table table;
  for (const char* heading : {"NAME", "MOUNTED", "MOUNT POINT", "ATTRIBUTES"})
    table.column(heading);
  return show_list(
      session, FS_PATH, {{"pool_id", pool}}, table,
      [](Table& rows, const Object& fs) {
        rows.row({text_of(fs, "name"), flag_of(fs, "mounted"), text_of(fs, "mountpoint"),
                  text_of(fs, "extended_attrs")});
      },
      "no sub filesystems");
}

int remove(Session& session, const std::string& pool, const Options& options) {
  if (!options.yes && !session.confirm("Delete sub filesystem " + options.name + " with all its snapshots?"))
    return FAILED;
  return send(session, "DELETE", FS_PATH, {{"pool_id", pool}, {"name", options.name}}, nullptr,
              "deleted sub filesystem " + options.name);
}

int mount(Session& session, const std::string& pool, const Options& options) {
  const Object body{{"pool_id", pool}, {"name", options.name}};
  return send(session, "POST", MOUNT_PATH, {}, &body, "mounted " + options.name);
}

int umount(Session& session, const std::string& pool, const Options& options) {
  return send(session, "DELETE", MOUNT_PATH, {{"pool_id", pool}, {"name", options.name}}, nullptr,
              "unmounted " + options.name);
}

int set_mount_point(Session& session, const std::string& pool, const Options& options) {
  const Object body{{"pool_id", pool}, {"name", options.name}, {"mount_point", options.mount_point}};
  return send(session, "PUT", "/svc/r/scsipool/fs/mount_point", {}, &body,
              "the mount point of " + options.name + " is now " + options.mount_point);
}

int rollback(Session& session, const std::string& pool, const Options& options) {
  if (!options.yes && !session.confirm("Roll " + options.name + " back to its newest snapshot?"))
    return FAILED;
  const Object body{{"pool_id", pool}, {"name", options.name}};
  return send(session, "PUT", FS_PATH, {}, &body, "rolled " + options.name + " back to its newest snapshot");
}

}  // namespace

void add_fs_commands(CLI::App& app, Action& action) {
  auto* fs = app.add_subcommand("fs", "Sub filesystems (of ZFS pools)");
  fs->require_subcommand(1);
  fs->fallthrough();
  auto created = std::make_shared<Options>();
  auto* command = fs_command(*fs, action, "create", "Make a sub filesystem", created, create);
  command->add_option("--mount-point", created->mount_point,
                      "Last part of its mount point (default: its name)");
  command->add_option("--retention-type", created->retention_type, "Kept for replication")
      ->check(CLI::IsMember({"newest", "normal"}));
  auto* snapshot = command->add_option("--snapshot", created->snapshot, "Make it from this snapshot");
  command->add_flag("--link", created->link_clone, "Share the snapshot's blocks instead of copying them")
      ->needs(snapshot);
  pool_command(*fs, action, "list", "List the sub filesystems of a pool", list);
  auto deleted = std::make_shared<Options>();
  fs_command(*fs, action, "delete", "Delete a sub filesystem with all its snapshots", deleted, remove)
      ->add_flag("--yes", deleted->yes, "Do not ask");
  fs_command(*fs, action, "mount", "Mount it, now and at every start", std::make_shared<Options>(), mount);
  fs_command(*fs, action, "umount", "Unmount it", std::make_shared<Options>(), umount);
  auto moved = std::make_shared<Options>();
  fs_command(*fs, action, "mount-point", "Change the last part of its mount point", moved, set_mount_point)
      ->add_option("LEAF", moved->mount_point, "The last part")
      ->required();
  auto rolled = std::make_shared<Options>();
  fs_command(*fs, action, "rollback", "Bring it back to its newest snapshot", rolled, rollback)
      ->add_flag("--yes", rolled->yes, "Do not ask");
  add_filesystem_snapshot_commands(*fs, action);
}

}  // namespace ctl
