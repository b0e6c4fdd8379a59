#include "app/state.h"

std::int32_t Verbosity = 0;
std::string LogFilePath;
std::int32_t RunMode = RunModeNone;
std::string LocalPath;
std::string RemotePath;
std::vector<std::string> PrintFileList;
std::uint32_t MoreFilesAccepted = 1;
