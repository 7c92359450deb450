#include "ui/interrupt.h"

#include <signal.h>

namespace kv {

namespace {

volatile bool g_interrupted = false;

void OnInterrupt(int) {
  g_interrupted = true;
  // The next one takes the default way out.
  signal(SIGINT, SIG_DFL);
}

}  // namespace

void InstallInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
}

const volatile bool* InterruptFlag() { return &g_interrupted; }
bool Interrupted() { return g_interrupted; }
void ClearInterrupt() { g_interrupted = false; }

}  // namespace kv
