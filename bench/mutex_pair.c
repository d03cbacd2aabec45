#include "bench/mutex_pair.h"

#include <pthread.h>

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static int g_running;

int mutex_pair(int handle) {
  int running;
  pthread_mutex_lock(&g_mutex);
  running = handle >= 0 ? g_running : -1;
  pthread_mutex_unlock(&g_mutex);
  return running;
}
