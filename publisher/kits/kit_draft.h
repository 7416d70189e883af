/** @file The file of a kit, on whatever file system that is. */
#ifndef PUBLISHER_KITS_KIT_DRAFT_H
#define PUBLISHER_KITS_KIT_DRAFT_H

#include "base/file_io.h"

#include <string>

namespace tarn::publisher {

/**
 * A file beside a kit's place that becomes the kit, or is removed with the object. What a killed run left is taken
 * over, because a stick has no room for it beside the next. Failures are PublishError.
 */
class KitDraft {
public:
	/** Makes an empty file; fails while another process writes the same kit. */
	explicit KitDraft(const std::string& path);

	int Fd() const { return draft_.Fd(); }
	/** The name under which it can be read until Commit(). */
	const std::string& Name() const { return draft_.Name(); }
	void Sync() const;
	/** Gives it its name, in the place of a file that has this name, and makes that durable. */
	void Commit();

private:
	std::string path_;
	Draft draft_;
};

} // namespace tarn::publisher

#endif
