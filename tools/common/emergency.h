// What must not be left behind when the process goes down in an instant: shared memory, a hidden cursor,
// unread log lines. Everything here may run in a signal handler.
#pragma once

#include <string_view>
#include <vector>

namespace tool::emergency {

// A file that Clean() removes, up to ForgetFile(). At most 4096 of them, those of a thousand shared buffers; what is more stays.
void AddFile(std::string_view path);
void ForgetFile(std::string_view path);

// Terminal whose cursor Clean() shows again; -1 for none.
void RestoreCursor(int fd);

// Terminal from which keys are read, -1 for none.
void UseKeysOf(int fd);
// Its keys come at once and unseen, until LeaveKeyMode() or Clean() gives it back the mode that it had. Both
// do nothing in the background, where the terminal is another's.
void EnterKeyMode();
void LeaveKeyMode();

// When the process crashes while its standard error is captured, what is in the pipe and the last lines
// taken out of it go to `error_fd`. -1 for none.
void SaveLog(int pipe_fd, int error_fd);
void RememberLine(std::string_view line);

// Removes the memory, shows the cursor and gives the terminal its mode back.
void Clean();

// Cleans up at SIGSEGV, SIGBUS, SIGFPE, SIGILL and SIGABRT before the previous handler runs.
void HandleCrashes();

}  // namespace tool::emergency
