#pragma once
// A fresh folder that goes with the object.

#include <string>

class Temp_Dir {
 public:
  Temp_Dir();
  ~Temp_Dir();
  Temp_Dir(const Temp_Dir&) = delete;
  Temp_Dir& operator=(const Temp_Dir&) = delete;

  const std::string& path() const { return path_; }
  // The path of an entry in it.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};
