#include "PipeWireMetadata.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/utils/json.h>

struct PipeWireMetadata::Listener {
    spa_hook hook{};
};

PipeWireMetadata::PipeWireMetadata(PipeWireSession& session, uint32_t id, PipeWireLoop::Work changed)
    : _id(id), _changed(std::move(changed)), _listener(std::make_unique<Listener>()),
      _proxy(session.bind(id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA))
{
    static const pw_metadata_events events{PW_VERSION_METADATA_EVENTS, _property};
    if (_proxy)
        pw_proxy_add_object_listener(_proxy, &_listener->hook, &events, this);
}

PipeWireMetadata::~PipeWireMetadata()
{
    if (!_proxy)
        return;
    spa_hook_remove(&_listener->hook);
    pw_proxy_destroy(_proxy);
}

int PipeWireMetadata::_property(void* data, uint32_t subject, const char* key, const char* /*type*/,
                                const char* value)
{
    auto* self = static_cast<PipeWireMetadata*>(data);
    if (subject != PW_ID_CORE)
        return 0;
    if (!key)
        self->_values.clear();
    else if (value)
        self->_values[key] = value;
    else
        self->_values.erase(key);
    self->_changed();
    return 0;
}

std::string PipeWireMetadata::name(const std::string& key) const
{
    const auto found = _values.find(key);
    if (found == _values.end())
        return {};
    const std::string& json = found->second;
    spa_json whole;
    spa_json object;
    spa_json_init(&whole, json.data(), json.size());
    if (spa_json_enter_object(&whole, &object) <= 0)
        return {};
    std::string text(json.size() + 1, '\0'); // no string in the JSON is longer
    const auto next = [&] {
        return spa_json_get_string(&object, text.data(), static_cast<int>(text.size())) > 0;
    };
    while (next()) {
        const bool isName = std::strcmp(text.c_str(), "name") == 0; // null-terminated: the buffer is longer
        if (!next())
            break;
        if (isName)
            return {text.c_str(), std::strlen(text.c_str())};
    }
    return {};
}

void PipeWireMetadata::setName(const std::string& key, const std::string& name)
{
    std::string json(name.size() * 6 + 3, '\0'); // one byte may be escaped by six
    const int length = spa_json_encode_string(json.data(), static_cast<int>(json.size()), name.c_str());
    json.resize(static_cast<size_t>(length));
    json = "{ \"name\": " + json + " }";
    if (_proxy)
        pw_metadata_set_property(reinterpret_cast<pw_metadata*>(_proxy), PW_ID_CORE, key.c_str(),
                                 "Spa:String:JSON", json.c_str());
}

std::vector<uint32_t> PipeWireMetadata::numbers(const std::string& key) const
{
    std::vector<uint32_t> all;
    const auto found = _values.find(key);
    if (found == _values.end())
        return all;
    const std::string& text = found->second;
    const auto isDigit = [](char each) { return std::isdigit(static_cast<unsigned char>(each)) != 0; };
    for (auto at = std::ranges::find_if(text, isDigit); at != text.end();) {
        const auto end = std::find_if_not(at, text.end(), isDigit);
        all.push_back(static_cast<uint32_t>(std::strtoul(std::string(at, end).c_str(), nullptr, 10)));
        at = std::find_if(end, text.end(), isDigit);
    }
    return all;
}
