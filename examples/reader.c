/*
 * reader ID FILE [SECONDS]
 *
 * Prints a file of a database while holding off its replacement, waiting up to so many seconds for one that is running.
 * Whatever it reads between the two calls belongs to one version.
 */
#include <dataupdate/project_lock.h>

#include <stdio.h>
#include <stdlib.h>

static int Print(const char* path) {
	char block[4096];
	size_t count = 0;
	FILE* file = fopen(path, "rb");
	if (file == NULL) {
		perror(path);
		return EXIT_FAILURE;
	}
	while ((count = fread(block, 1, sizeof block, file)) > 0) {
		fwrite(block, 1, count, stdout);
	}
	const int failed = ferror(file) | fflush(stdout);
	fclose(file);
	return failed ? EXIT_FAILURE : EXIT_SUCCESS;
}

int main(int argc, char** argv) {
	if (argc != 3 && argc != 4) {
		fprintf(stderr, "usage: reader ID FILE [SECONDS]\n");
		return 2;
	}
	const int lock = TARNDBUDGetFileLock(argv[1], argc == 4 ? strtoul(argv[3], NULL, 10) : 10);
	if (lock < 0) {
		fprintf(stderr, lock == -1 ? "%s is being replaced\n" : "%s was never installed here\n", argv[1]);
		return 75;
	}
	const int status = Print(argv[2]);
	TARNDBUDReleaseFileLock(lock);
	return status;
}
