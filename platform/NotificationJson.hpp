#pragma once

#include <expected>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/Notification.hpp"

namespace vontu::platform {

// The JSON forms in which the hosts read and print notifications.
//
// CONTENT: {"title", "subtitle", "body", "categoryIdentifier", "threadIdentifier", "userInfo",
//           "sound": null | "default" | {"named": FILE}, "attachments": [{"identifier", "url",
//           "type"}], "communication": null | {"sender": PERSON}}
// PERSON:  {"displayName", "handle": {"value", "type": "emailAddress"}, "nickname",
//           "customIdentifier", "contactIdentifier", "image": {"data": BASE64}}
//
// Readers never throw: a field of the wrong type is an error naming the field.

nlohmann::json toJson(const NotificationContent& content);
nlohmann::json toJson(const Person& person);

std::expected<NotificationContent, std::string> contentFromJson(const nlohmann::json& json);
std::expected<Person, std::string> personFromJson(const nlohmann::json& json);

// A request in either input form: {"identifier", "content"}, or an APNs payload (an object
// with "aps"), which gets a new UUID as identifier and its texts from "aps".
std::expected<NotificationRequest, std::string> requestFromJson(const nlohmann::json& json);

// A request as {"identifier", "content"}.
nlohmann::json toJson(const NotificationRequest& request);

}  // namespace vontu::platform
