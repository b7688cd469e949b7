#ifndef RECORDED_SYSLOG_H
#define RECORDED_SYSLOG_H

#include <string>
#include <utility>
#include <vector>

/// What this program sent to syslog: the C library's function is replaced by one that records.
std::vector<std::pair<int, std::string>> takeSyslog();

#endif
