#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/AutoMockable.hpp"
#include "platform/PlistValue.hpp"

namespace vontu::platform {

// A named defaults suite: a persistent map from string keys to property-list values, shared by
// every process of the same state root (the main app and any number of extension processes).
//
// Each call is one transaction of its own: a write is durable and visible to other processes
// when the call returns, and a reader never sees half of a write. A read-modify-write spanning
// several calls is not atomic, as with the system's own defaults; updateObject is the one that
// is. Calls may come from any thread. No call throws: a failure reads as absent, and a failed
// write returns false and leaves what was stored before.
class DefaultsSuite : public AutoMockable {
public:
    virtual std::optional<PlistValue> objectForKey(const std::string& key) = 0;
    // Stores the value, replacing any value under the key.
    virtual bool setObject(const PlistValue& value, const std::string& key) = 0;
    // Removes the key; removing a key that is not there succeeds.
    virtual bool removeObject(const std::string& key) = 0;
    // Every key and value of the suite; empty when the suite cannot be read.
    virtual PlistDictionary dictionaryRepresentation() = 0;

    // What updateObject does with the key once its change has seen the value.
    struct Update {
        enum class Action { keep, store, remove };
        Action action = Action::keep;
        PlistValue value;  // what to store
    };
    using Change = std::function<Update(const std::optional<PlistValue>& current)>;
    // Reads the key's value (absent when there is none or it cannot be read), hands it to
    // change and does what change answers, as one transaction: no write of any process comes
    // between the read and the write, so two updates of one key both take effect. change is
    // called once, on the calling thread, and must not call this suite. True when the
    // transaction was committed; on false nothing was changed.
    virtual bool updateObject(const std::string& key, const Change& change) = 0;
};

}  // namespace vontu::platform
