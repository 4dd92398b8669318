#include "backup/pools/scsipool/scsi_pool_manager_service.h"

#include <ace/Get_Opt.h>
#include <ace/OS_NS_stdlib.h>

#include <algorithm>
#include <string>
#include <utility>

#include "backup/pools/scsipool/replicate_job_manager.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "platform/base/log.h"

namespace {

struct Service_Options {
  std::string fs_type;
  ACE_UINT32 block_size = 0;
  std::string global_dev;
  std::string mount_point;
};

Service_Options parse_options(int argc, ACE_TCHAR** argv) {
  Service_Options options;
  // The vector holds no program name: its first element is an option already.
  ACE_Get_Opt parser(argc, argv, "f:b:g:d:", 0, 0, ACE_Get_Opt::PERMUTE_ARGS);
  for (int option = parser(); option != EOF; option = parser()) {
    switch (option) {
      case 0:
        break;
      case 'f':
        options.fs_type = parser.opt_arg();
        break;
      case 'b':
        options.block_size = static_cast<ACE_UINT32>(std::max(ACE_OS::atoi(parser.opt_arg()), 0));
        break;
      case 'g':
        options.global_dev = parser.opt_arg();
        break;
      case 'd':
        options.mount_point = parser.opt_arg();
        break;
      default:
        LOG_FAILURE("Unknown SCSI_Pool_Manager_Service option %c\n", option);
    }
  }
  return options;
}

}  // namespace

int SCSI_Pool_Manager_Service::init(int argc, ACE_TCHAR** argv) {
  Service_Options options = parse_options(argc, argv);
  scsi_pool::SCSI_Pool_Manager::instance()->open(options.fs_type.c_str(), options.block_size,
                                                 options.global_dev.c_str(), std::move(options.mount_point));
  scsi_pool::Replicate_Job_Manager::instance()->open();
  return 0;
}

int SCSI_Pool_Manager_Service::fini() {
  scsi_pool::SCSI_Pool_Manager::instance();
  scsi_pool::SCSI_Pool_Manager::close_instance();
  return 0;
}

ACE_FACTORY_DEFINE(SCSIPOOL, SCSI_Pool_Manager_Service)
