/* First, so that nothing else makes it compile. */
#include "call_from_c.h"

#include "dataupdate/project_lock.h"

int TarnTestLockFromC(const char* project, unsigned long timeout_seconds) {
	return TARNDBUDGetFileLock(project, timeout_seconds);
}

void TarnTestReleaseFromC(int fd) {
	TARNDBUDReleaseFileLock(fd);
}
