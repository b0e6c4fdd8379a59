#include "filetransfer/transfer_state.h"

#include "archive/mz_strm_os.h"

Options CommandLine;
std::string UserHomeDir;
std::string UserName;
void* FileStream = nullptr;
void* DirPackStream = nullptr;
void* DirUnpackStream = nullptr;
void* CurrentStream = nullptr;
std::uint64_t LocalFileSize = 0;
std::string KeepPath;
const xcb_query_extension_reply_t* ExtensionInfo = nullptr;

void setKeepPath(std::string_view path) { KeepPath.assign(path.substr(0, kKeepPathMax)); }

bool ensureFileStream() {
    if (!FileStream) FileStream = mz_stream_os_create();
    return FileStream != nullptr;
}
