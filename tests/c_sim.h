/* Starts and stops a velmora-sim process for the tests whose host side has no
 * Qt application object (plain C hosts, the C interface's registry test). */
#ifndef C_SIM_H
#define C_SIM_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
/* faults: velmora-sim --fault texts ("B=silence"), null-terminated, at most
 * five (more: -1, nothing started); or null. */
pid_t c_sim_start(const char *simPath, const char *address, const char *const *faults);
void c_sim_stop(pid_t pid);
void c_sleep_ms(int ms);
#ifdef __cplusplus
}
#endif

#endif
