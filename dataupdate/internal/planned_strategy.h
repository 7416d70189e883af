/** @file Finishing the replacement that a killed process had prepared. */
#ifndef DATAUPDATE_INTERNAL_PLANNED_STRATEGY_H
#define DATAUPDATE_INTERNAL_PLANNED_STRATEGY_H

#include "dataupdate/internal/changes.h"
#include "dataupdate/internal/replacement_plan.h"
#include "dataupdate/strategy.h"

#include <optional>
#include <string>

namespace tarn::dataupdate {

/** Puts those files into their places that a plan names and that are not there yet. */
class PlannedStrategy : public BaseStrategy {
public:
	/** @param plan  as FindWholePlan() gives it */
	PlannedStrategy(std::string id, ReplacementPlan plan);
	/** Removes what was prepared for the database in the temporary area, once it has been installed. */
	~PlannedStrategy() override;

	/** Opens the package once more if it is still there, for who listens to what packages say about themselves. */
	void PrepareUpdate() override;
	/** Throws what the strategy that was killed would have thrown. */
	void ApplyUpdate() override;
	/** As the strategy that was killed would have named them. */
	[[nodiscard]] FileList ListModifiedFiles() const;

private:
	[[nodiscard]] Changes _Remaining() const;
	void _MoveTree() const;

	std::string id_;
	ReplacementPlan plan_;
	bool is_applied_ = false;
};

/** The plan of an unfinished replacement whose files are whole; none where there is no such plan. */
[[nodiscard]] std::optional<ReplacementPlan> FindWholePlan(
    const std::string& id, const std::string& volume, const std::string& install_directory);

} // namespace tarn::dataupdate

#endif
