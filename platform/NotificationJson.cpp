#include "platform/NotificationJson.hpp"

#include "platform/Crypto.hpp"

namespace vontu::platform {

using nlohmann::json;

namespace {

using Reading = std::expected<void, std::string>;

// Reads an optional string member into out; a member of another type is an error.
Reading readString(const json& object, const char* key, std::string& out) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return {};
    if (!it->is_string()) return std::unexpected(std::string("\"") + key + "\" is not a string");
    out = it->get<std::string>();
    return {};
}

Reading readOptionalString(const json& object, const char* key, std::optional<std::string>& out) {
    std::string value;
    bool present = object.contains(key) && !object.at(key).is_null();
    if (auto r = readString(object, key, value); !r) return r;
    if (present) out = std::move(value);
    return {};
}

json optionalToJson(const std::optional<std::string>& value) {
    return value ? json(*value) : json(nullptr);
}

std::expected<std::optional<NotificationSound>, std::string> soundFromJson(const json& content) {
    auto it = content.find("sound");
    if (it == content.end() || it->is_null()) return std::optional<NotificationSound>();
    if (it->is_string() && *it == "default") return NotificationSound::defaultSound();
    if (it->is_object()) {
        auto named = it->find("named");
        if (named != it->end() && named->is_string()) {
            return NotificationSound::soundNamed(named->get<std::string>());
        }
    }
    return std::unexpected("\"sound\" is not null, \"default\" or {\"named\": FILE}");
}

std::expected<std::vector<NotificationAttachment>, std::string> attachmentsFromJson(
    const json& content) {
    std::vector<NotificationAttachment> attachments;
    auto it = content.find("attachments");
    if (it == content.end() || it->is_null()) return attachments;
    if (!it->is_array()) return std::unexpected("\"attachments\" is not an array");
    for (const auto& item : *it) {
        if (!item.is_object()) return std::unexpected("an attachment is not an object");
        NotificationAttachment attachment;
        for (auto [key, field] : {std::pair{"identifier", &attachment.identifier},
                                  std::pair{"url", &attachment.url},
                                  std::pair{"type", &attachment.type}}) {
            if (auto r = readString(item, key, *field); !r) return std::unexpected(r.error());
        }
        attachments.push_back(std::move(attachment));
    }
    return attachments;
}

}  // namespace

json toJson(const Person& person) {
    json image = nullptr;
    if (person.image) image = {{"data", base64Encode(person.image->data)}};
    return {
        {"displayName", optionalToJson(person.displayName)},
        {"handle", {{"value", person.handle.value},
                    {"type", person.handle.type == PersonHandleType::emailAddress ? "emailAddress"
                             : person.handle.type == PersonHandleType::phoneNumber ? "phoneNumber"
                                                                                   : "unknown"}}},
        {"nickname", optionalToJson(person.nickname)},
        {"customIdentifier", optionalToJson(person.customIdentifier)},
        {"contactIdentifier", optionalToJson(person.contactIdentifier)},
        {"image", image},
    };
}

std::expected<Person, std::string> personFromJson(const json& object) {
    if (!object.is_object()) return std::unexpected("a person is not an object");
    Person person;
    for (auto [key, field] : {std::pair{"displayName", &person.displayName},
                              std::pair{"nickname", &person.nickname},
                              std::pair{"customIdentifier", &person.customIdentifier},
                              std::pair{"contactIdentifier", &person.contactIdentifier}}) {
        if (auto r = readOptionalString(object, key, *field); !r) return std::unexpected(r.error());
    }
    if (auto handle = object.find("handle"); handle != object.end() && handle->is_object()) {
        if (auto r = readString(*handle, "value", person.handle.value); !r) {
            return std::unexpected(r.error());
        }
        std::string type;
        if (auto r = readString(*handle, "type", type); !r) return std::unexpected(r.error());
        person.handle.type = type == "emailAddress" ? PersonHandleType::emailAddress
                             : type == "phoneNumber" ? PersonHandleType::phoneNumber
                                                     : PersonHandleType::unknown;
    }
    if (auto image = object.find("image"); image != object.end() && image->is_object()) {
        std::string data;
        if (auto r = readString(*image, "data", data); !r) return std::unexpected(r.error());
        auto bytes = base64Decode(data);
        if (!bytes) return std::unexpected("a person's image is not valid base64");
        person.image = Image{std::move(*bytes)};
    }
    return person;
}

json toJson(const NotificationContent& content) {
    json sound = nullptr;
    if (content.sound) {
        sound = content.sound->isDefault() ? json("default") : json{{"named", content.sound->named}};
    }
    json attachments = json::array();
    for (const auto& a : content.attachments) {
        attachments.push_back({{"identifier", a.identifier}, {"url", a.url}, {"type", a.type}});
    }
    json communication = nullptr;
    if (content.communication) communication = {{"sender", toJson(content.communication->sender)}};
    return {
        {"title", content.title},
        {"subtitle", content.subtitle},
        {"body", content.body},
        {"categoryIdentifier", content.categoryIdentifier},
        {"threadIdentifier", content.threadIdentifier},
        {"userInfo", content.userInfo},
        {"sound", sound},
        {"attachments", attachments},
        {"communication", communication},
    };
}

std::expected<NotificationContent, std::string> contentFromJson(const json& object) {
    if (!object.is_object()) return std::unexpected("the content is not an object");
    NotificationContent content;
    for (auto [key, field] : {std::pair{"title", &content.title},
                              std::pair{"subtitle", &content.subtitle},
                              std::pair{"body", &content.body},
                              std::pair{"categoryIdentifier", &content.categoryIdentifier},
                              std::pair{"threadIdentifier", &content.threadIdentifier}}) {
        if (auto r = readString(object, key, *field); !r) return std::unexpected(r.error());
    }
    if (auto it = object.find("userInfo"); it != object.end() && !it->is_null()) {
        if (!it->is_object()) return std::unexpected("\"userInfo\" is not an object");
        content.userInfo = *it;
    }
    auto sound = soundFromJson(object);
    if (!sound) return std::unexpected(sound.error());
    content.sound = *sound;
    auto attachments = attachmentsFromJson(object);
    if (!attachments) return std::unexpected(attachments.error());
    content.attachments = std::move(*attachments);
    if (auto it = object.find("communication"); it != object.end() && !it->is_null()) {
        if (!it->is_object() || !it->contains("sender")) {
            return std::unexpected("\"communication\" is not {\"sender\": PERSON}");
        }
        auto sender = personFromJson(it->at("sender"));
        if (!sender) return std::unexpected(sender.error());
        content.communication = CommunicationContext{std::move(*sender)};
    }
    return content;
}

namespace {

// An APNs payload: the texts come from "aps", the whole payload is the user info. Fields of
// the wrong type are left out rather than refused: the device shows what it can.
NotificationRequest requestFromApnsPayload(const json& payload) {
    NotificationRequest request{newUuidString(), {}};
    NotificationContent& content = request.content;
    content.userInfo = payload;
    const json& aps = payload.at("aps");
    if (!aps.is_object()) return request;
    auto stringAt = [](const json& object, const char* key) {
        auto it = object.find(key);
        return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
    };
    if (auto alert = aps.find("alert"); alert != aps.end()) {
        if (alert->is_string()) {
            content.body = alert->get<std::string>();
        } else if (alert->is_object()) {
            content.title = stringAt(*alert, "title");
            content.subtitle = stringAt(*alert, "subtitle");
            content.body = stringAt(*alert, "body");
        }
    }
    content.categoryIdentifier = stringAt(aps, "category");
    content.threadIdentifier = stringAt(aps, "thread-id");
    return request;
}

}  // namespace

std::expected<NotificationRequest, std::string> requestFromJson(const json& object) {
    if (!object.is_object()) return std::unexpected("the input is not a JSON object");
    if (object.contains("aps")) return requestFromApnsPayload(object);
    auto content = object.find("content");
    if (content == object.end()) {
        return std::unexpected("the input is neither a request (with \"content\") nor an APNs "
                               "payload (with \"aps\")");
    }
    NotificationRequest request;
    if (auto r = readString(object, "identifier", request.identifier); !r) {
        return std::unexpected(r.error());
    }
    if (request.identifier.empty()) request.identifier = newUuidString();
    auto parsed = contentFromJson(*content);
    if (!parsed) return std::unexpected(parsed.error());
    request.content = std::move(*parsed);
    return request;
}

json toJson(const NotificationRequest& request) {
    return {{"identifier", request.identifier}, {"content", toJson(request.content)}};
}

}  // namespace vontu::platform
