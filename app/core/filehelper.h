#pragma once

// Files of the per-user folder.
namespace FileHelper {
bool fileExists(const char* path);
// Removes both calibration files, where they exist.
void cleanVeloraCalibFiles();
// Makes the per-user folder if needed and removes the command and answer files in it.
void cleanWorkingDirectory();
}
