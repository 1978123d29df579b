#ifndef VELTA_TESTS_SUPPORT_RECORDS_H
#define VELTA_TESTS_SUPPORT_RECORDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "collector/passwd_info.h"

// An account that differs from others in what matters to a test; the rest is plausible.
PasswdInfo Account(const std::string& name, std::uint32_t uid);

// "name:uid:gid:home:shell" of every record, to be compared as a sequence. The time of the read is left out.
std::vector<std::string> Texts(const std::vector<PasswdInfo>& records);

#endif  // VELTA_TESTS_SUPPORT_RECORDS_H
