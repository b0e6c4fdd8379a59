// Print mode: hands every file of the list to the far side's print service.
#pragma once

#include <string>
#include <vector>

#include <xcb/xcb.h>

// The print extension's descriptor (libxcb fills in its id).
extern xcb_extension_t ThinPrintExtension;
inline constexpr const char* kThinPrintExtensionName = "QRV_ThinPrint12";

// Sends the files in order; stops early when the far side takes no more files.
void runPrintLoop(xcb_connection_t* connection, const std::vector<std::string>& files);
