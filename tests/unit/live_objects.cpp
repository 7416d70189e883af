#include "live_objects.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> live_objects = 0;

} // namespace

namespace tarn::test {

long LiveObjects() {
	return live_objects;
}

} // namespace tarn::test

// Takes the standard operators' place. NOLINTBEGIN(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
void* operator new(size_t size) {
	void* const memory = std::malloc(size == 0 ? 1 : size);
	if (memory == nullptr) {
		throw std::bad_alloc();
	}
	++live_objects;
	return memory;
}

void operator delete(void* memory) noexcept {
	live_objects -= memory == nullptr ? 0 : 1;
	std::free(memory);
}

void operator delete(void* memory, size_t /*size*/) noexcept {
	operator delete(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
