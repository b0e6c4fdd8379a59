// A progress line for long transfers, shown only when standard error is a terminal. It is
// drawn over itself and wiped at the end, so it never mixes with the program's messages.
#pragma once

#include <cstdint>
#include <string>

void startProgress(const std::string& name, std::uint64_t total);
void addProgress(std::uint64_t bytes);
void finishProgress();
