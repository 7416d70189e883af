/** @file What C libraries give out, freed when its owner goes. */
#ifndef BASE_HANDLE_H
#define BASE_HANDLE_H

#include <memory>

namespace tarn {

template<auto kFree>
struct FreedBy {
	template<typename T>
	void operator()(T* object) const {
		kFree(object); // NOLINT(cppcoreguidelines-*): such as vasprintf's memory, by std::free()
	}
};

/** Owns an object that a function of a C library frees. */
template<typename T, auto kFree>
using Handle = std::unique_ptr<T, FreedBy<kFree>>;

} // namespace tarn

#endif
