#pragma once
// Owns a descriptor and closes it. Moves, does not copy.

#include <ace/config-all.h>

class Auto_Handle {
 public:
  explicit Auto_Handle(ACE_HANDLE handle = ACE_INVALID_HANDLE) : handle_(handle) {}
  ~Auto_Handle() { reset(); }
  Auto_Handle(Auto_Handle&& other) noexcept : handle_(other.release()) {}
  Auto_Handle& operator=(Auto_Handle&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  Auto_Handle(const Auto_Handle&) = delete;
  Auto_Handle& operator=(const Auto_Handle&) = delete;

  ACE_HANDLE get() const { return handle_; }
  bool valid() const { return handle_ != ACE_INVALID_HANDLE; }
  // Hands the descriptor to the caller.
  ACE_HANDLE release() {
    const ACE_HANDLE handle = handle_;
    handle_ = ACE_INVALID_HANDLE;
    return handle;
  }
  // Closes the old one, keeps errno.
  void reset(ACE_HANDLE handle = ACE_INVALID_HANDLE);

 private:
  ACE_HANDLE handle_;
};
