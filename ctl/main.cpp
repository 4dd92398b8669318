#include <ace/Log_Msg.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

#include "ctl/commands.h"

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  // What the libraries log is said once, as the command's own error.
  ACE_Log_Msg::instance()->clr_flags(ACE_Log_Msg::STDERR);
  ctl::Session session(std::cin, std::cout, std::cerr,
                       ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1);
  return ctl::run(std::vector<std::string>(argv + 1, argv + argc), session);
}
