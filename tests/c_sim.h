/* Starts and stops a velmora-sim process for the plain C host tests. */
#ifndef C_SIM_H
#define C_SIM_H

#include <sys/types.h>

pid_t c_sim_start(const char *simPath, const char *address);
void c_sim_stop(pid_t pid);
void c_sleep_ms(int ms);

#endif
