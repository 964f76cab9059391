// Looking up a symbol of a dynamic library. All peers look for a function of Kest in Kest's own library.
#include <benchmarks/topic.h>
#include <kest/process/dll.h>

#include <memory>
#include <stdexcept>

#include <dlfcn.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/SharedLibrary.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <benchmarks/apr.h>

#include <apr_dso.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/dll/shared_library.hpp>
#endif

namespace Kest::Benchmark {

namespace {

const std::string Symbol = "_ZN4Kest6System14GetCurrentTimeEv";

/// The path of the library that the program is linked with.
std::string LibraryPath() {
    Dl_info info{};
    void* symbol = ::dlsym(RTLD_DEFAULT, Symbol.c_str());
    if (symbol == nullptr || ::dladdr(symbol, &info) == 0)
        throw std::runtime_error("the library is not to be found in the program");
    return info.dli_fname;
}

template <class TLookUp>
void Add(const std::string& who, const TLookUp& lookUp) {
    Register("look up/function/" + who, [lookUp](benchmark::State& state) {
        for (auto _ : state)
            benchmark::DoNotOptimize(lookUp());
    });
}

} // namespace

void RegisterTopic() {
    const std::string path = LibraryPath();
    void* handle = ::dlopen(path.c_str(), RTLD_LAZY); // stays open, like the process itself
    Add("limit", [handle] { return ::dlsym(handle, Symbol.c_str()); });
    const auto library = std::make_shared<System::TDLL>(path);
    Add("kest", [library] { return library->GetSymbolAddress(Symbol); });
#ifdef KEST_BENCHMARK_POCO
    const auto poco = std::make_shared<Poco::SharedLibrary>(path);
    Add("poco", [poco] { return poco->getSymbol(Symbol); });
#endif
#ifdef KEST_BENCHMARK_APR
    const auto pool = std::make_shared<TAprPool>();
    apr_dso_handle_t* dso = nullptr;
    (void)::apr_dso_load(&dso, path.c_str(), pool->Get());
    Add("apr", [pool, dso] {
        apr_dso_handle_sym_t symbol = nullptr;
        (void)::apr_dso_sym(&symbol, dso, Symbol.c_str());
        return symbol;
    });
#endif
#ifdef KEST_BENCHMARK_BOOST
    const auto boost = std::make_shared<boost::dll::shared_library>(path);
    Add("boost", [boost] { return &boost->get<double()>(Symbol); });
#endif
}

} // namespace Kest::Benchmark
