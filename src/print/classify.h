// Decides from a file's first bytes whether the far side can print it. Used by print mode and by
// the listing of local directories, so it depends on nothing but the platform layer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

enum class PrintContent : int {
    Binary = 0,
    Text = 1,
    PostScript = 2,
    Eps = 3,
    Gif = 4,
    Pdf = 5,
};

// How many leading bytes of a file the classifier looks at.
inline constexpr std::size_t kClassifyWindow = 512;

// Classifies the bytes (at most the first 512 of a file, normally).
PrintContent classifyBuffer(std::span<const std::uint8_t> data);

// The type letter of a classification: 't' text, 'p' PostScript or EPS, 'a' PDF, 'b' anything
// else (binary and GIF).
char printTypeLetter(PrintContent content);

// The type letter of a file's first 512 bytes (as many as could be read). Only regular files
// are opened: anything else, and a file that cannot be opened, is 'b'.
char classifyPrintFile(const std::string& path);
