/** @file What a test program has allocated. */
#ifndef TESTS_UNIT_LIVE_OBJECTS_H
#define TESTS_UNIT_LIVE_OBJECTS_H

namespace tarn::test {

/** Pieces of memory that were asked for by operator new and not given back. */
long LiveObjects();

} // namespace tarn::test

#endif
