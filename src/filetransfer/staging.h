// A received file or directory on its way in: it is written beside its target under a hidden
// temporary name and moved into place only once it arrived whole, so an abort, a refusal, a
// lost connection, a failed write or a signal leaves the target exactly as it was.
#pragma once

#include <string>

// Prepares a received file: the target's symbolic links are resolved, a temporary file is
// created beside the file they name, and `stream` is set to a write-only stream into it.
// False with the failing call's error in `error` (the target itself is never touched).
bool stageFile(const std::string& target, void*& stream, int& error);
// Prepares a received directory: a temporary directory beside the target (links resolved),
// whose path `temporary` the unpack stream is opened on.
bool stageDirectory(const std::string& target, std::string& temporary, int& error);
// An existing directory that the staged one replaces besides its own target (removed only
// after the new one is in place).
void stageAlsoReplaces(const std::string& tree);

// Whether a file or directory is staged, and whether `stream` is the staged file's stream.
bool stageActive();
bool isStagedFileStream(const void* stream);
// A write into the staged file or directory failed: it can no longer arrive whole.
void markStageBroken();
bool stageBroken();
// The path the staged file or directory will take (links resolved).
const std::string& stagedTarget();

// Moves what arrived into place, replacing what was there (a replaced tree is removed only
// now). The staged file's stream must be closed first. False with the error when it could not
// be moved; the temporaries are gone either way.
bool commitStage(int& error);
// Removes the temporaries; the target stays as it was.
void discardStage();
