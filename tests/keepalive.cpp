// Sleeps for half an hour: keeps Wine's services alive between the programs of a test run.
#include <windows.h>

int main() {
  Sleep(30 * 60 * 1000);
  return 0;
}
