#pragma once

#include <chrono>
#include <string>
#include <vector>

/// Waits until every file exists and is not empty, in list order, with one deadline for the whole
/// list. Logs each file that is found and, at the deadline, that some are missing; the caller goes
/// on in either case. The deadline is counted in whole seconds of the monotonic clock. Blocks.
void WaitForFiles(const std::vector<std::string>& files, std::chrono::seconds timeout);

/// Logs a warning with its name for each file that does not exist or is empty.
void WarnOfMissingFiles(const std::vector<std::string>& files);
