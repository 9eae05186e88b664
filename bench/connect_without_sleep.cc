// A measurement aid, linked only into the benchmark's *_no_connect_sleep
// variants with -Wl,--wrap=usleep: the client library's archive then calls
// this function for usleep().
//
// The client library's connect loop sleeps once after every connect(2), also
// after one that succeeded at once (its back-off starts at 1 µs and doubles
// while the connect is retried). A sleep of 1 µs costs the timer slack and
// two context switches, and on a loaded machine the wait for the processor
// to come back. This skips sleeps of at most 1 µs; longer ones, the back-off
// of a real retry, are slept.
#include <unistd.h>

extern "C" int __real_usleep(useconds_t microseconds);

extern "C" int __wrap_usleep(useconds_t microseconds) {
  if (microseconds <= 1) return 0;
  return __real_usleep(microseconds);
}
