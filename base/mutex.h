/**
 * @file
 * A mutex with which Clang checks that guarded data is only used by who holds it (-Wthread-safety); for other compilers
 * the annotations are nothing. To wait, give the mutex itself to a std::condition_variable_any.
 */
#ifndef BASE_MUTEX_H
#define BASE_MUTEX_H

#include <mutex>

#ifdef __clang__
#define TARN_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define TARN_THREAD_ANNOTATION(annotation)
#endif

/** Behind a variable: may only be used by who holds the mutex. */
#define TARN_GUARDED_BY(mutex) TARN_THREAD_ANNOTATION(guarded_by(mutex))
/** Behind a function: may only be called by who holds the mutex. */
#define TARN_REQUIRES(mutex) TARN_THREAD_ANNOTATION(requires_capability(mutex))

namespace tarn {

class TARN_THREAD_ANNOTATION(capability("mutex")) Mutex {
public:
	void lock() TARN_THREAD_ANNOTATION(acquire_capability()) { mutex_.lock(); }
	void unlock() TARN_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }

private:
	std::mutex mutex_;
};

class TARN_THREAD_ANNOTATION(scoped_lockable) MutexLock {
public:
	explicit MutexLock(Mutex& mutex) TARN_THREAD_ANNOTATION(acquire_capability(mutex)) : mutex_(mutex) {
		mutex_.lock();
	}
	~MutexLock() TARN_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }
	MutexLock(const MutexLock&) = delete;
	MutexLock& operator=(const MutexLock&) = delete;

private:
	Mutex& mutex_;
};

} // namespace tarn

#endif
