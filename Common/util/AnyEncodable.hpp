#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <type_traits>

#include "Common/util/JsonCoding.hpp"

namespace tern {

// Any encodable value behind one type. Encoding it encodes the held value in place: no
// wrapping object and no type tag.
class AnyEncodable {
public:
    template <class T>
        requires(!std::same_as<std::remove_cvref_t<T>, AnyEncodable> &&
                 JsonEncodable<std::remove_cvref_t<T>>)
    explicit AnyEncodable(T&& value)
        : value_(std::make_shared<Holder<std::remove_cvref_t<T>>>(std::forward<T>(value))) {}

    void encode(JsonEncoder& encoder) const { value_->encode(encoder); }
    std::string description() const { return value_->description(); }

private:
    struct AnyHolder {
        virtual ~AnyHolder() = default;
        virtual void encode(JsonEncoder& encoder) const = 0;
        virtual std::string description() const = 0;
    };
    template <class T>
    struct Holder final : AnyHolder {
        explicit Holder(T held) : value(std::move(held)) {}
        void encode(JsonEncoder& encoder) const override { encoder.encodeValue(value); }
        std::string description() const override { return recordDescription(value); }
        T value;
    };

    // Shared and immutable, so copies are cheap and independent in effect.
    std::shared_ptr<const AnyHolder> value_;
};

// The held value decides the JSON shape, so no object is started for it.
template <>
struct JsonCoding<AnyEncodable> {
    static std::string typeName() { return "tern::AnyEncodable"; }
    static void encode(const AnyEncodable& value, JsonEncoder& encoder) { value.encode(encoder); }
};

}  // namespace tern
