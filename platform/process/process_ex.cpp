#include "platform/process/process_ex.h"

#include <chrono>

#include "platform/process/child.h"

ACE_Process_Ex::ACE_Process_Ex(int option, const char* program)
    : mask_((option & OPTION_READ_STDOUT) != 0 ? REDIRECT_STDOUT | REDIRECT_STDERR : 0),
      program_(program != nullptr ? program : "") {}

ACE_Process_Ex::~ACE_Process_Ex() {
  stdin_.reset();
  stdout_.reset();
  stderr_.reset();
  int status = 0;
  if (child_ == nullptr || child_->wait(std::chrono::seconds(2), status)) return;
  child_->terminate(std::chrono::seconds(1));
}

pid_t ACE_Process_Ex::pid() const {
  return child_ != nullptr ? child_->pid() : -1;
}

bool ACE_Process_Ex::running() const {
  return child_ != nullptr && child_->running();
}
