#include "dataupdate/space_shortage.h"

#include <utility>

namespace tarn::dataupdate {

namespace {

std::optional<SpaceShortage>& Last() {
	thread_local std::optional<SpaceShortage> last;
	return last;
}

} // namespace

std::optional<SpaceShortage> LastSpaceShortage() {
	return Last();
}

void NoteSpaceShortage(SpaceShortage shortage) {
	Last() = std::move(shortage);
}

} // namespace tarn::dataupdate
