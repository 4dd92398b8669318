#include "backup/pools/scsipool/btrfs_line_handler.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/regex.hpp>
#include <charconv>
#include <cstring>
#include <stdexcept>

namespace scsi_pool {

namespace {

const boost::regex BTRFS_QGROUP_RE("(\\d*)/(\\d*)\\s*(\\S*)\\s*(\\S*)\\s*(\\S*)\\s*(\\S*)\\s*");
const boost::regex BTRFS_SUBVOL_RE(
    "^ID\\s*(\\d*)\\s*gen\\s*(\\d*)\\s*parent\\s*(\\d*)\\s*top "
    "level\\s*(\\d*)\\s*uuid\\s*(\\S*)\\s*path\\s*(\\S*)");
const boost::regex BTRFS_SUBVOL_SHOW_INFO_RE("^\\s*([a-zA-Z\\ \\(\\)]*):\\s*(.+)\\s*$");
const boost::regex BTRFS_FS_DF_RE(
    "^\\s*(\\S*),\\s*(\\S*):\\s*total=([0-9.KMGTPiB]*),\\s*used=([0-9.KMGTPiB]*)\\s*$");

constexpr std::size_t UNIT_LENGTH = 3;
// Sizes are worked out in hundredths of a byte; what does not fit 64 bits that way is refused.
constexpr double LARGEST_HUNDREDTHS = 18446744073709549568.0;

// False for no match, also when the expression library gives up on a line.
bool search(const char* line, std::size_t len, const boost::regex& expression, boost::cmatch& found) {
  if (line == nullptr || len == 0) return false;
  try {
    return boost::regex_search(line, line + len, found, expression);
  } catch (const std::runtime_error&) {
    return false;
  }
}

// The shift of a unit; 0 for an unknown one.
unsigned unit_shift(const std::string& unit) {
  static const char* const units[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
  unsigned shift = 10;
  for (const char* known : units) {
    if (unit == known) return shift;
    shift += 10;
  }
  return 0;
}

// The number that a text begins with, whatever the locale; 0 when there is none.
double leading_number(const std::string& text) {
  double number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

bool is_leading_part(const std::string& key, const char* name) {
  return !key.empty() && std::strncmp(name, key.c_str(), key.size()) == 0;
}

}  // namespace

bool size_convert(const std::string& str, ACE_UINT64& size) {
  if (str.size() <= UNIT_LENGTH) return false;
  const std::size_t number_length = str.size() - UNIT_LENGTH;
  const unsigned shift = unit_shift(str.substr(number_length));
  const double hundredths = 100 * leading_number(str.substr(0, number_length));
  if (shift == 0 || hundredths < 0) return false;
  if (hundredths * static_cast<double>(ACE_UINT64(1) << shift) > LARGEST_HUNDREDTHS) return false;
  size = (static_cast<ACE_UINT64>(hundredths) << shift) / 100;
  return true;
}

bool size_convert(const std::string& str, std::string& out) {
  if (!boost::algorithm::ends_with(str, "iB")) {
    out = str;
    return true;
  }
  ACE_UINT64 size = 0;
  if (!size_convert(str, size)) return false;
  out = std::to_string(size);
  return true;
}

int QuotaGroup_Line_Handler::handle_stdout_line(const char* line, std::size_t len) {
  boost::cmatch found;
  if (!search(line, len, BTRFS_QGROUP_RE, found)) return 0;
  std::string rfer;
  std::string excl;
  if (!size_convert(found[3].str(), rfer) || !size_convert(found[4].str(), excl)) return 0;
  groups_.push_back(
      FS_Info_Item{{"level", found[1].str()}, {"qgroupid", found[2].str()}, {"rfer", rfer}, {"excl", excl}});
  return 0;
}

int List_Subvolume_Line_Handler::handle_stdout_line(const char* line, std::size_t len) {
  boost::cmatch found;
  if (!search(line, len, BTRFS_SUBVOL_RE, found)) return 0;
  info_.push_back(FS_Info_Item{{"subvol_id", found[1].str()}, {"path", found[6].str()}});
  return 0;
}

int Btrfs_Show_Line_Handler::handle_stdout_line(const char* line, std::size_t len) {
  boost::cmatch found;
  if (!search(line, len, BTRFS_SUBVOL_SHOW_INFO_RE, found)) return 0;
  const std::string key = found[1].str();
  if (is_leading_part(key, "Creation time")) {
    ctime_ = found[2].str();
  } else if (is_leading_part(key, "Flags")) {
    flags_ = found[2].str();
  } else if (is_leading_part(key, "Name")) {
    name_ = found[2].str();
  }
  return 0;
}

int Btrfs_Received_Line_Handler::handle_stdout_line(const char* line, std::size_t len) {
  boost::cmatch found;
  if (!search(line, len, BTRFS_SUBVOL_SHOW_INFO_RE, found) || found[1].str() != "Received UUID") return 0;
  const std::string value = boost::algorithm::trim_copy(found[2].str());
  if (value != "-") uuid_ = value;
  return 0;
}

int Btrfs_Df_Line_Handler::handle_stdout_line(const char* line, std::size_t len) {
  boost::cmatch found;
  if (!search(line, len, BTRFS_FS_DF_RE, found)) return 0;
  const std::string type = found[1].str();
  if (type == "unknown") return 0;
  const std::string text = boost::algorithm::starts_with(type, "Data") ? found[4].str() : found[3].str();
  ACE_UINT64 size = 0;
  if (!size_convert(text, size)) return 0;
  size_ += found[2].str() == "DUP" ? 2 * size : size;
  return 0;
}

}  // namespace scsi_pool
