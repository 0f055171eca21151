#include "extension/NotificationService.hpp"

#include <fmt/format.h>

#include <chrono>
#include <cmath>

#include "extension/JsonData.hpp"
#include "extension/QLXNotificationHelper.hpp"
#include "extension/QLXPushTern.hpp"
#include "extension/QLXSoundsManager.hpp"
#include "extension/SharedDefaults.hpp"
#include "platform/Env.hpp"
#include "platform/PlistJson.hpp"

namespace vontu::extension {

using nlohmann::json;
using platform::DefaultsSuite;
using platform::NotificationContent;
using platform::PlistDictionary;
using platform::PlistValue;

namespace {

constexpr const char* kReadReceiptCategory = "ReadNotif";

// The largest relay answer taken: a mail with some 11 MB of attachments. Memory sets it: while
// it is parsed and stored an answer is held several times over (the answer, the parsed value,
// the stored form and the database's record), some five times its size at the peak.
constexpr std::size_t kLargestRelayAnswer = 16u * 1024u * 1024u;

// The pause between two attempts to store a fetched message.
constexpr std::chrono::milliseconds kStoreRetryPause{250};

// A payload string; a value of another type counts as absent.
std::optional<std::string> stringIn(const json& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

// The text that "%@" makes of an optional string: a missing value prints as "(null)".
std::string formatted(const std::optional<std::string>& value) {
    return value.value_or("(null)");
}

const PlistDictionary* dictionaryIn(const PlistDictionary& record, const char* key) {
    auto it = record.find(key);
    return it == record.end() ? nullptr : it->second.as<PlistDictionary>();
}

std::optional<std::string> stringIn(const PlistDictionary& dictionary, const std::string& key) {
    auto it = dictionary.find(key);
    if (it == dictionary.end()) return std::nullopt;
    if (const auto* text = it->second.as<std::string>()) return *text;
    return std::nullopt;
}

// The JSON form of a defaults value, absent when it has none (dates and data do not
// serialise to JSON).
std::optional<json> jsonObjectOf(const PlistValue& value) {
    return std::visit(
        [](const auto& v) -> std::optional<json> {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, platform::Date> || std::is_same_v<T, platform::Bytes>) {
                return std::nullopt;
            } else if constexpr (std::is_same_v<T, platform::PlistArray>) {
                json array = json::array();
                for (const auto& item : v) {
                    auto converted = jsonObjectOf(item);
                    if (!converted) return std::nullopt;
                    array.push_back(std::move(*converted));
                }
                return array;
            } else if constexpr (std::is_same_v<T, PlistDictionary>) {
                json object = json::object();
                for (const auto& [key, item] : v) {
                    auto converted = jsonObjectOf(item);
                    if (!converted) return std::nullopt;
                    object[key] = std::move(*converted);
                }
                return object;
            } else if constexpr (std::is_same_v<T, double>) {
                if (!std::isfinite(v)) return std::nullopt;
                return json(v);
            } else {
                return json(v);
            }
        },
        value.value);
}

// Logs as the system's NSLog does: a default-type line of the running app.
void logLine(const std::string& message) {
    auto& env = platform::Env::current();
    env.writeLog(env.bundleIdentifier().value_or("ios.vontu"), "NotificationService",
                 platform::LogType::defaultType, message);
}

}  // namespace

PushTrackingBridge& NotificationService::defaultBridge() { return QLXPushTern::shared(); }

NotificationService::NotificationService(std::string relayBaseUrl,
                                         std::function<PushTrackingBridge&()> bridge)
    : relayBaseUrl_(std::move(relayBaseUrl)), bridge_(std::move(bridge)) {}

void NotificationService::didReceiveNotificationRequest(
    const platform::NotificationRequest& request, ContentHandler contentHandler) {
    auto& env = platform::Env::current();
    if (env.systemVersionAtLeast(13, 0)) {
        didHandle_ = bridge_().didReceiveNotificationRequest(request, contentHandler);
        if (didHandle_) return;
    }
    contentHandler_ = std::move(contentHandler);
    originalContent_ = request.content;
    bestAttemptContent_ = request.content;

    const json& userInfo = bestAttemptContent_->userInfo;
    const json aps = userInfo.is_object() && userInfo.contains("aps") ? userInfo.at("aps") : json();
    auto defaults = sharedDefaults();

    if (stringIn(aps, "category") == kReadReceiptCategory) {
        answerReadReceipt(aps, defaults.get());
        return;
    }
    prepareNewMail(aps);
}

void NotificationService::answerReadReceipt(const json& aps, DefaultsSuite* defaults) {
    const std::string key = "Track_" + formatted(stringIn(aps, "md5"));
    const auto reader = stringIn(aps, "read_by").value_or("");
    std::optional<std::string> title, text;
    // One transaction: two receipts for the same message (two readers) arriving at once in two
    // processes must both take their reader off the record.
    auto answer = [&](const std::optional<PlistValue>& stored) {
        const PlistDictionary* record = stored ? stored->as<PlistDictionary>() : nullptr;
        if (record == nullptr) return DefaultsSuite::Update{};
        static const PlistDictionary noReaders;
        const PlistDictionary* readersPointer = dictionaryIn(*record, "read_by");
        const PlistDictionary& readers = readersPointer != nullptr ? *readersPointer : noReaders;
        DefaultsSuite::Update update{readers.empty() ? DefaultsSuite::Update::Action::remove
                                                     : DefaultsSuite::Update::Action::keep,
                                     {}};
        if (!reader.empty()) {
            text = stringIn(readers, reader);
            PlistDictionary remaining = readers;
            remaining.erase(reader);
            if (remaining.empty()) {
                update.action = DefaultsSuite::Update::Action::remove;
            } else {
                PlistDictionary updated = *record;
                updated["read_by"] = std::move(remaining);
                update = {DefaultsSuite::Update::Action::store, std::move(updated)};
            }
        }
        if (!text || text->empty()) text = stringIn(*record, "body");
        title = stringIn(*record, "title").value_or("");
        return update;
    };
    if (defaults != nullptr) defaults->updateObject(key, answer);
    if (title) {
        bestAttemptContent_->title = *title;
        bestAttemptContent_->body = text.value_or("");
    }
    deliverBestAttempt();
}

void NotificationService::prepareNewMail(const json& aps) {
    const auto session = stringIn(aps, "session");
    const std::string file = QLXSoundsManager::sharedManager().soundFileForSession(session);
    // A stored "null" asks for the system's default sound.
    bestAttemptContent_->sound = file == "null"
                                     ? platform::NotificationSound::defaultSound()
                                     : platform::NotificationSound::soundNamed(file).value_or(
                                           platform::NotificationSound::defaultSound());

    // The push carries the sender's display name as its title.
    const std::string senderName = bestAttemptContent_->title;
    const auto senderEmail = QLXNotificationHelper::emailFromString(stringIn(aps, "from"));
    const auto recipients = QLXNotificationHelper::recipientsForMail(stringIn(aps, "participants"));
    bestAttemptContent_ =
        QLXNotificationHelper::modifyNotificationContentForCommunicationNotification(
            *bestAttemptContent_, senderName, senderEmail, recipients);
    
    auto self = shared_from_this();
    fetchEMLForUid(stringIn(aps, "uid"), session, stringIn(aps, "token"),
                   [self, aps, session](std::optional<std::string> key,
                                        std::optional<json> value) {
                       self->storeFetchedMessage(aps, session, key, std::move(value));
                       self->deliverBestAttempt();
                   });
}

void NotificationService::storeFetchedMessage(const json& aps,
                                              const std::optional<std::string>& session,
                                              const std::optional<std::string>& key,
                                              std::optional<json> value) {
    if (!value || !value->is_string() || value->get_ref<const std::string&>().empty()) return;
    // Moved in, not copied (as a braced list would): a message source may be many megabytes.
    PlistDictionary record;
    record.emplace("eml", std::move(value->get_ref<std::string&>()));
    for (const char* field : {"gid", "gtid"}) {
        if (!aps.contains(field)) continue;
        // Kept as the payload had it; a value with no defaults form (null) is left out.
        if (auto converted = platform::plistFromPlainJson(aps.at(field))) record[field] = *converted;
    }
    const std::string recordKey = fmt::format("EML_{}_{}", formatted(session), formatted(key));
    if (!storeUntilExpiry(record, recordKey)) {
        logLine(fmt::format("Could not store {}: the shared defaults could not be written", recordKey));
    }
}

// The main app may hold the shared defaults' write lock for longer than one write waits for
// it. The message source is then lost unless it is tried again, for as long as the push may
// take: until the expiry warning, which delivers the content without it.
bool NotificationService::storeUntilExpiry(const PlistDictionary& record, const std::string& key) {
    while (true) {
        auto defaults = sharedDefaults();
        if (defaults && defaults->setObject(record, key)) return true;
        std::unique_lock lock(expiryMutex_);
        // A write that fails at once (a full disk, a read-only store) must not spin.
        if (expiryWarning_.wait_for(lock, kStoreRetryPause, [this] { return expiryWarned_; })) return false;
    }
}

void NotificationService::serviceExtensionTimeWillExpire() {
    {
        std::lock_guard lock(expiryMutex_);
        expiryWarned_ = true;
    }
    expiryWarning_.notify_all();
    if (platform::Env::current().systemVersionAtLeast(13, 0) && didHandle_) {
        bridge_().serviceExtensionTimeWillExpire();
    }
    // With the request handed to the bridge no handler is stored here, and there is nothing
    // to call.
    deliverBestAttempt();
}

void NotificationService::deliverBestAttempt() {
    if (!contentHandler_) return;
    (*contentHandler_)(bestAttemptContent_ ? *bestAttemptContent_ : originalContent_);
}

void NotificationService::fetchEMLForUid(const std::optional<std::string>& uid,
                                         const std::optional<std::string>& account,
                                         const std::optional<std::string>& token,
                                         FetchCompletion completion) {
    if (!uid || !account || !token) {
        completion(std::nullopt, std::nullopt);
        return;
    }
    PlistDictionary body{{"user", *account}, {"uid", *uid}, {"key", *token}};
    auto defaults = sharedDefaults();
    if (auto device = defaults ? defaults->objectForKey("DeviceID") : std::nullopt) {
        body["device"] = *device;
    }

    const std::string url = fmt::format("{}:9001/{}", relayBaseUrl_, "post/eml");
    post(body, url,
         [completion = std::move(completion)](std::optional<platform::Bytes> data,
                                              std::optional<platform::HttpUrlResponse>,
                                              std::optional<platform::UrlError> error) {
             if (error || !data) {
                 completion(std::nullopt, std::nullopt);
                 return;
             }
             std::optional<json> parsed = jsonObjectWithData(std::move(*data));
             if (!parsed || !parsed->is_object() || parsed->contains("error")) {
                 completion(std::nullopt, std::nullopt);
                 return;
             }
             // An object without keys gets no answer at all: the push then waits for the
             // system's expiry.
             if (parsed->empty()) return;
             // Moved, not copied: copying a value recurses once per level of nesting, and a
             // deeply nested answer would overflow this thread's stack.
             auto first = parsed->begin();
             completion(first.key(), std::move(first.value()));
         });
}

void NotificationService::post(const PlistDictionary& body, const std::string& url,
                               platform::DataTaskCompletion completion) {
    std::optional<std::string> serialized;
    if (auto object = jsonObjectOf(body)) {
        try {
            serialized = object->dump();
        } catch (const json::exception&) {
            // Text that is not valid UTF-8 has no JSON form either.
        }
    }
    if (!serialized) logLine("Could not create post dict");

    platform::UrlRequest request;
    request.url = url;
    request.method = "POST";
    request.headers = {{"Accept", "application/json"},
                       {"Content-Type", "application/json; charset=UTF-8"},
                       {"Content-Length", fmt::format("{}", serialized ? serialized->size() : 0)}};
    if (serialized) request.body = platform::toBytes(*serialized);
    request.maxResponseBytes = kLargestRelayAnswer;
    platform::Env::current().sharedUrlSession()->dataTask(std::move(request),
                                                          std::move(completion));
}

}  // namespace vontu::extension
