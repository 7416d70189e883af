/*
 * reader ID SECONDS FILE...
 *
 * Prints files of a database while holding off their replacement, waiting up to so many seconds for one that is
 * running. Whatever it reads between the two calls belongs to one version, provided that the last replacement was
 * finished.
 */
#include <dataupdate/project_lock.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

enum { TRY_LATER = 75 };

static int Print(const char* path) {
	char block[4096];
	size_t count = 0;
	FILE* file = fopen(path, "rb");
	if (file == NULL) {
		perror(path);
		return EXIT_FAILURE;
	}
	while ((count = fread(block, 1, sizeof block, file)) > 0 && fwrite(block, 1, count, stdout) == count) {
	}
	int status = EXIT_SUCCESS;
	if (ferror(file)) {
		perror(path);
		status = EXIT_FAILURE;
	} else if (fflush(stdout) != 0 || ferror(stdout)) { /* What was not written before is not in the buffer any more. */
		perror("standard output");
		status = EXIT_FAILURE;
	}
	fclose(file);
	return status;
}

/*
 * An update that is killed while it replaces files loses its lock like any program that ends, and leaves files of two
 * versions. What tells is a file that stands until the next update has made that good, and for a moment after every
 * replacement. The C interface is the two functions of the lock, so the file is looked for by its path. What cannot be
 * examined counts as being there.
 */
static int MayBeAMixture(const char* id) {
	char path[4096];
	const int length = snprintf(path, sizeof path, "/var/lib/data_update/%s/replacing", id);
	if (length < 0 || (size_t)length >= sizeof path) {
		return 1;
	}
	return access(path, F_OK) == 0 || errno != ENOENT;
}

static int PrintAll(const char* id, char** paths) {
	/* Under the lock: nobody begins to replace files from here on. */
	if (MayBeAMixture(id)) {
		fprintf(stderr, "the last replacement of %s is not finished\n", id);
		return TRY_LATER;
	}
	for (; *paths != NULL; ++paths) {
		if (Print(*paths) != EXIT_SUCCESS) {
			return EXIT_FAILURE;
		}
	}
	return EXIT_SUCCESS;
}

int main(int argc, char** argv) {
	if (argc < 4) {
		fprintf(stderr, "usage: reader ID SECONDS FILE...\n");
		return 2;
	}
	const int lock = TARNDBUDGetFileLock(argv[1], strtoul(argv[2], NULL, 10));
	if (lock < 0) {
		const char* why =
		    lock == -1 ? "is being replaced" : "is not installed, or tarndbudctl init has not run since the restart";
		fprintf(stderr, "%s %s\n", argv[1], why);
		return TRY_LATER;
	}
	const int status = PrintAll(argv[1], argv + 3);
	TARNDBUDReleaseFileLock(lock);
	return status;
}
