/* A mutex locked and unlocked behind the call of a library: what any entry point cannot do without. */
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
