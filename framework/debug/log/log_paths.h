#ifndef LOG_PATHS_H
#define LOG_PATHS_H

#include <string>

/// Where an application that asks nobody else puts its log files: the drive that it looks for, and
/// the directory without one. Set before threads start. Never destroyed.
extern std::string& logfileDrive;
extern std::string& logfileDirectory;

#endif
