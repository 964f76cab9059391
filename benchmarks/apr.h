#ifndef KEST_BENCHMARKS_APR_H
#define KEST_BENCHMARKS_APR_H

#include <apr_general.h>
#include <apr_pools.h>

namespace Kest::Benchmark {

/// A pool of the Apache Portable Runtime, in which all its objects are made. The first pool starts the runtime.
class TAprPool {
public:
    TAprPool() {
        static const apr_status_t started = ::apr_initialize();
        (void)started;
        (void)::apr_pool_create(&Pool, nullptr);
    }
    TAprPool(const TAprPool&) = delete;
    TAprPool& operator=(const TAprPool&) = delete;
    ~TAprPool() { ::apr_pool_destroy(Pool); }

    apr_pool_t* Get() const { return Pool; }

private:
    apr_pool_t* Pool = nullptr;
};

} // namespace Kest::Benchmark

#endif
