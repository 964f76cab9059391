// Reaching the one object of a class, made long ago. The limit is a function of this program that is not inlined.
#include <benchmarks/topic.h>
#include <kest/foundation/singleton.h>
#include <kest/net/address.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/SingletonHolder.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/serialization/singleton.hpp>
#endif

namespace Kest::Benchmark {

namespace {

class TObject {
public:
    TObject() { benchmark::DoNotOptimize(Number); } // else it might be made before the program runs

private:
    int Number = 0;
};

__attribute__((noinline)) TObject& BareObject() {
    static TObject Object;
    return Object;
}

template <class TGet>
void Add(const std::string& variant, const std::string& who, const TGet& get) {
    Register("get/" + variant + '/' + who, [get](benchmark::State& state) {
        for (auto _ : state)
            benchmark::DoNotOptimize(&get());
    });
}

} // namespace

void RegisterTopic() {
    Add("of the program", "limit", [&]() -> TObject& { return BareObject(); });
    Add("of the program", "kest", [&]() -> TObject& { return _Gadgets::TSingleton<TObject>::GetObject(); });
    Add("of the library", "limit", [&]() -> TObject& { return BareObject(); });
    Add("of the library", "kest", [&]() -> System::TSocket::TMutex& { return _Gadgets::TSingleton<System::TSocket::TMutex>::GetObject(); });
#ifdef KEST_BENCHMARK_POCO
    Add("of the program", "poco", [&]() -> TObject& {
        static Poco::SingletonHolder<TObject> holder;
        return *holder.get();
    });
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add("of the program", "boost", [&]() -> TObject& { return boost::serialization::singleton<TObject>::get_mutable_instance(); });
#endif
}

} // namespace Kest::Benchmark
