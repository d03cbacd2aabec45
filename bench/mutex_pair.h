/* Locks and unlocks a mutex in a library: the minimal cost of an entry point. */
#ifndef IP6DNS_BENCH_MUTEX_PAIR_H
#define IP6DNS_BENCH_MUTEX_PAIR_H

#ifdef __cplusplus
extern "C" {
#endif

int mutex_pair(int handle);

#ifdef __cplusplus
}
#endif

#endif
