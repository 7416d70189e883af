/** @file What a test program has allocated. */
#ifndef TARN_TESTS_LIVE_OBJECTS_H
#define TARN_TESTS_LIVE_OBJECTS_H

namespace tarn::test {

/** Pieces of memory that were asked for by operator new and not given back. */
long LiveObjects();

} // namespace tarn::test

#endif
