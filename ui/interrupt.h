// Ctrl+C on the command line: the first asks the running job to stop
// cleanly (a render drops its wave, playback silences its notes), the second
// ends the program at once.
#pragma once

namespace kv {

void InstallInterruptHandler();
// Set by the first Ctrl+C; polled by long jobs.
const volatile bool* InterruptFlag();
bool Interrupted();
void ClearInterrupt();

}  // namespace kv
