#pragma once
// Names and identities, checked here because the kernel checks nothing but lengths. Pure functions.

#include <string>

namespace lio {

// In front of the name of every backstore that this system makes: the mark of its own objects.
extern const char* const BACKSTORE_MARK;

// What a kernel fabric wants its targets and initiators called.
enum class Name_Form { iscsi, fibre_channel, loopback };

// Brings the name of a target or an initiator to the form that the kernel compares: lower case;
// iqn.YYYY-MM.domain with optional :text, eui. + 16 and naa. + 16 or 32 hexadecimal digits, 223 bytes at
// most; for Fibre Channel a port name as 16 digits, with or without colons or "naa.", with colons as the
// result. False, with `why` telling what is wrong, otherwise.
bool normal_name(Name_Form form, const std::string& given, std::string& normal, std::string& why);

// May the path stand behind a backstore? Absolute, no "..", no comma or control character, 255 bytes at most.
bool valid_backstore_path(const std::string& path, std::string& why);

// The serial number for a volume: the UUID that is the last component of its path, or the last but one; else
// a name-based UUID of the path. Lower case.
std::string serial_of_path(const std::string& path);
// The name-based UUID of the path alone.
std::string path_serial(const std::string& path);
// The part of a serial that initiators tell devices apart by: its first 25 hexadecimal digits, lower case.
std::string device_identity(const std::string& serial);

// `name` is `prefix` and a number of at most 65535, written the one way (no sign, no leading zero), as
// "lun_12".
bool numbered_name(const std::string& name, const char* prefix, unsigned& number);

}  // namespace lio
