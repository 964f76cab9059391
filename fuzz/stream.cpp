// Compares a stream over a transport with a model: with any operations, buffer sizes and answers of the transport.
#include "fuzz.h"

#include <models/stream_model.h>

#include <vector>

using namespace Kest::Fuzz;
using Kest::Test::TStreamWalk;

namespace {

void Compare(const std::pair<std::string, std::string>& outcomes) {
    RequireEqual(outcomes.first, outcomes.second, "the stream does what the model does");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const auto bufferSize = input.ConsumeIntegralInRange<unsigned int>(0, 40);
    const auto answers = input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(0, 200));
    TStreamWalk walk(bufferSize, [answers, at = std::size_t{0}]() mutable { return at < answers.size() ? answers[at++] : 2U; });

    while (input.remaining_bytes() != 0) {
        const bool onStream = input.ConsumeBool();
        std::string words = TStreamWalk::Operations[input.ConsumeIntegralInRange<unsigned int>(0, TStreamWalk::OperationCount - 1)];
        words += ' ';
        words +=
            words == "write " ? input.ConsumeRandomLengthString(60) : std::to_string(input.ConsumeIntegralInRange<unsigned int>(0, 60));
        Compare(walk.Step(words, onStream));
    }
    Compare(walk.End());
    return 0;
}
