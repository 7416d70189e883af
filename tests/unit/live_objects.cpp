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

// Takes the standard operators' place, that for the libraries which cannot bear exceptions included. Weak, because
// ThreadSanitizer brings its own, and nothing is counted there.
// NOLINTBEGIN(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
__attribute__((weak)) void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
	void* const memory = std::malloc(size == 0 ? 1 : size);
	live_objects += memory == nullptr ? 0 : 1;
	return memory;
}

__attribute__((weak)) void* operator new(std::size_t size) {
	void* const memory = operator new(size, std::nothrow);
	if (memory == nullptr) {
		throw std::bad_alloc();
	}
	return memory;
}

__attribute__((weak)) void operator delete(void* memory) noexcept {
	live_objects -= memory == nullptr ? 0 : 1;
	std::free(memory);
}

__attribute__((weak)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
	operator delete(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
