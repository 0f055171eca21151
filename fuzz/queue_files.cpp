// The queue's inventory and task files as another process or an older version left them: what
// decodes encodes, and its encoding decodes to what encodes the same again.
#include "fuzz/FuzzSupport.hpp"
#include "Common/queue/QueueTask.hpp"
#include "Common/queue/QueueTaskMetadata.hpp"
#include "Common/util/JsonAdapter.hpp"

namespace {

template <class Record>
void roundTrip(const tern::JsonAdapter& adapter, const vontu::platform::Bytes& input) {
    auto decoded = adapter.fromJson<Record>(input, false);
    if (!decoded) return;
    auto first = adapter.toJson(*decoded);
    if (!first) return;  // dates beyond whole seconds have no stored form
    auto redecoded = adapter.fromJson<Record>(*first, false);
    vontu::fuzz::require(redecoded.has_value(), "an encoded record does not decode");
    vontu::fuzz::require(adapter.toJson(*redecoded) == first, "encoding is not stable");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const tern::JsonAdapter adapter(std::make_shared<vontu::fuzz::QuietLogger>());
    const auto input = vontu::fuzz::bytes(data, size);
    roundTrip<std::vector<tern::QueueTaskMetadata>>(adapter, input);
    roundTrip<tern::QueueTask>(adapter, input);
    return 0;
}
