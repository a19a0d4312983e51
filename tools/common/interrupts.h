// Signals: the wish to end, a second wish that does not wait any longer, and changes of the terminal.
#pragma once

#include <functional>

namespace tool::interrupts {

// Installs the handlers for SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGTSTP, SIGCONT and SIGPIPE, once. SIGTSTP
// and SIGCONT only have to be handled while a live table hides the cursor of `terminal` and reads keys; -1
// leaves them alone.
// `hangup_reloads`: SIGHUP asks for something to be read again, and not for the end.
void Install(int terminal, bool hangup_reloads = false);

// SIGHUP waits from here until Install(), where it would end the process.
void HoldHangup();

// None of the signals above interrupts this thread from here on.
void LeaveToOtherThreads();

// Readable after any of them; made empty by Acknowledge().
int WakeDescriptor();
void Acknowledge();
// Makes it readable from any thread.
void WakeUp();

// A wish to end has come. A further one cleans up what must not stay and leaves the process at once, unless
// it follows within half a second: terminals, shells and timeout(1) often send two signals for one wish.
bool StopRequested();

// A SIGHUP has asked for it. True until TakeReload().
bool ReloadRequested();
bool TakeReload();

// For writes whose other side may take nothing any more: says so two seconds after now at the earliest,
// and only once the end of the run is asked for.
std::function<bool()> PatienceAfterStop();

// The window has another size, or the process is back from the background. True until TakeRedraw().
bool RedrawWanted();
bool TakeRedraw();

}  // namespace tool::interrupts
