#pragma once

#include <exception>
#include <memory>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "lmkit/foundation/DefaultsWriteQueue.hpp"
#include "lmkit/foundation/KeyedArchiver.hpp"
#include "lmkit/foundation/Log.hpp"
#include "lmkit/foundation/UserDefaults.hpp"

namespace lmkit {

/// A record setting kept in the app-group suite as the record's JSON dictionary, serialised to
/// JSON data. Reading data that is not a dictionary of this record gives the default and logs
/// "[AppMTLDefault] get value error: ...". Writes run on defaultsWriteQueue(), as AppDefault's do.
template <ArchivableRecord T>
class AppMTLDefault {
  public:
    AppMTLDefault(std::string key, std::shared_ptr<T> defaultValue = nullptr,
                  std::shared_ptr<UserDefaults> defaults = nullptr)
        : key_(std::move(key)),
          defaultValue_(std::move(defaultValue)),
          defaults_(defaults ? std::move(defaults) : UserDefaults::suite()) {}

    const std::string& key() const { return key_; }

    std::shared_ptr<T> get() const {
        auto data = defaults_->dataForKey(key_);
        if (!data)
            return defaultValue_;
        std::string error;
        try {
            auto json = nlohmann::ordered_json::parse(data->begin(), data->end());
            if (!json.is_object()) {
                error = "the stored value is not a dictionary";
            } else if (auto record = RecordCoding<T>::fromJSON(json, error)) {
                return record;
            } else if (error.empty()) {
                error = "the dictionary is not a valid " + RecordCoding<T>::typeName();
            }
        } catch (const std::exception& e) {
            error = e.what();
        }
        log::error("[AppMTLDefault] get value error: " + error);
        return defaultValue_;
    }

    /// Stores `record`; nullptr removes the key.
    void set(std::shared_ptr<T> record) const {
        defaultsWriteQueue().async([defaults = defaults_, key = key_, record = std::move(record)] {
            if (!record) {
                defaults->removeObjectForKey(key);
                defaults->synchronize();
                return;
            }
            std::string text;
            try {
                nlohmann::ordered_json json = RecordCoding<T>::toJSON(*record);
                if (!json.is_object())
                    throw std::runtime_error("the record's JSON is not a dictionary");
                text = json.dump();
            } catch (const std::exception& e) {
                log::error(std::string("[AppMTLDefault] set value error: ") + e.what());
                return;
            }
            defaults->setObject(UserDefaults::makeData(text), key);
            defaults->synchronize();
        });
    }

  private:
    std::string key_;
    std::shared_ptr<T> defaultValue_;
    std::shared_ptr<UserDefaults> defaults_;
};

}  // namespace lmkit
