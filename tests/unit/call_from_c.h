/** @file The library's C functions, called by a program in C. */
#ifndef TESTS_UNIT_CALL_FROM_C_H
#define TESTS_UNIT_CALL_FROM_C_H

#ifdef __cplusplus
extern "C" {
#endif

int TarnTestLockFromC(const char* project, unsigned long timeout_seconds);
void TarnTestReleaseFromC(int fd);

#ifdef __cplusplus
}
#endif

#endif
