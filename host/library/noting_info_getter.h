/** @file An InfoGetter that notes what is recorded and which package it came from, and looks at the volume before. */
#ifndef HOST_LIBRARY_NOTING_INFO_GETTER_H
#define HOST_LIBRARY_NOTING_INFO_GETTER_H

#include "dataupdate/update.h"
#include "host/library/opened_packages.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace tarn::ctl {

/** Passes everything on to another one. Not for use by several threads at once. */
class NotingInfoGetter : public dataupdate::InfoGetter {
public:
	/**
	 * @param check_volume  called with the database whenever the server's description is asked for, which every
	 *                      operation does after it has got its locks and before it writes; what it throws ends the
	 *                      operation
	 * @param packages      the packages that the operation opens; the last of them is recorded beside the new state
	 */
	NotingInfoGetter(std::shared_ptr<dataupdate::InfoGetter> other,
	    std::function<void(const std::string& id)> check_volume, std::shared_ptr<const OpenedPackages> packages);

	/** Whether a state was recorded since the construction or the last Forget(). */
	bool HasRecorded() const { return recorded_; }
	/** The version that was offered since then, -1 when it was not asked for. */
	int Offered() const { return offered_; }
	void Forget() const {
		recorded_ = false;
		offered_ = -1;
	}

	dataupdate::RemoteInfo GetRemoteInfo(const std::string& id) const override;
	std::map<int, dataupdate::DiffInfo> GetDiffInfos(const std::string& id) const override;
	dataupdate::DatabaseStatus GetDatabaseStatus(const std::string& id) const override;
	void SetDatabaseStatus(const std::string& id, const dataupdate::DatabaseStatus& status) const override;
	Json::Value GetDatabaseInfo() const override;
	std::string GetDatabaseUrl() const override;
	std::string GetQueryString() const override;

private:
	std::shared_ptr<dataupdate::InfoGetter> other_;
	std::function<void(const std::string& id)> check_volume_;
	std::shared_ptr<const OpenedPackages> packages_;
	mutable bool recorded_ = false;
	mutable int offered_ = -1;
};

} // namespace tarn::ctl

#endif
