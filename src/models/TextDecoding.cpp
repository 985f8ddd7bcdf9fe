// Decoding a record while its JSON text is parsed. A node list of 60 MB parses into a tree of
// several hundred MB; decoding each element of such an array as soon as its text is read keeps
// one element's tree at a time instead, and the rest of the document (small) is parsed whole.

#include <string>
#include <vector>

#include "lmkit/models/BaseModel.hpp"

namespace lmkit::models_detail {
namespace {

// Builds one JSON value from parse events, as the parser's own tree builder does.
class TreeBuilder {
  public:
    explicit TreeBuilder(Json& root) : root_(root) {}

    // Containers open below the value's root.
    std::size_t depth() const { return open_.size(); }

    void value(Json value) { place(std::move(value)); }
    void open(Json container) { open_.push_back(place(std::move(container))); }
    void close() { open_.pop_back(); }
    void key(std::string& key) { slot_ = &(*open_.back())[std::move(key)]; }

  private:
    Json* place(Json value) {
        if (open_.empty()) {
            root_ = std::move(value);
            return &root_;
        }
        Json& container = *open_.back();
        if (container.is_array()) {
            auto& elements = container.get_ref<Json::array_t&>();
            elements.push_back(std::move(value));
            return &elements.back();
        }
        *slot_ = std::move(value);
        return slot_;
    }

    Json& root_;
    std::vector<Json*> open_;
    Json* slot_ = nullptr;
};

class Handler final : public nlohmann::json_sax<Json> {
  public:
    Handler(TextDecoding& decoding, Json& rest) : decoding_(decoding), rest_(rest) {}

    bool null() override { return value(nullptr); }
    bool boolean(bool v) override { return value(v); }
    bool number_integer(number_integer_t v) override { return value(v); }
    bool number_unsigned(number_unsigned_t v) override { return value(v); }
    bool number_float(number_float_t v, const string_t&) override { return value(v); }
    bool string(string_t& v) override { return value(std::move(v)); }
    bool binary(binary_t&) override { return false; }  // text holds no binary values

    bool start_object(std::size_t) override { return open(Json::object()); }
    bool start_array(std::size_t) override {
        // (A key has been read at depth 1 only when the document is an object.)
        if (streamed_ < 0 && rest_.depth() == 1 && !key_.empty()) {
            // An array of records under a top-level key: its elements are decoded one by one.
            if (int property = decoding_.arrayProperty(key_); property >= 0) {
                rest_.value(nullptr);
                decoding_.beginArray(property);
                streamed_ = property;
                return true;
            }
        }
        return open(Json::array());
    }
    bool key(string_t& key) override {
        if (streamed_ >= 0) {
            element_.key(key);
            return true;
        }
        if (rest_.depth() == 1) {
            decoding_.forget(key);
            key_ = key;
        }
        rest_.key(key);
        return true;
    }
    bool end_object() override { return close(); }
    bool end_array() override {
        if (streamed_ >= 0 && element_.depth() == 0) {
            streamed_ = -1;
            return true;
        }
        return close();
    }
    bool parse_error(std::size_t position, const std::string&,
                     const nlohmann::detail::exception&) override {
        if (!failed_)
            error_ = invalidInput("the text is not valid JSON (at byte " +
                                  std::to_string(position) + ")");
        return false;
    }

    bool failed() const { return failed_; }
    const Error& error() const { return error_; }

  private:
    TreeBuilder& builder() { return streamed_ >= 0 ? element_ : rest_; }

    bool value(Json v) {
        builder().value(std::move(v));
        return completed();
    }
    bool open(Json container) {
        builder().open(std::move(container));
        return true;
    }
    bool close() {
        builder().close();
        return completed();
    }
    // After a value ends: an element that is now whole is decoded and dropped.
    bool completed() {
        if (streamed_ < 0 || element_.depth() != 0)
            return true;
        bool decoded = decoding_.element(streamed_, elementValue_, error_);
        elementValue_ = Json();
        failed_ = !decoded;
        return decoded;
    }

    TextDecoding& decoding_;
    TreeBuilder rest_;
    Json elementValue_;
    TreeBuilder element_{elementValue_};
    std::string key_;  // the top-level key being read
    int streamed_ = -1;
    bool failed_ = false;
    Error error_;
};

}  // namespace

bool decodeText(std::string_view text, TextDecoding& decoding, Error& error, Json* rest) {
    Json document;
    Handler handler(decoding, document);
    bool parsed = Json::sax_parse(text.begin(), text.end(), &handler);
    if (!parsed || handler.failed()) {
        error = handler.error();
        return false;
    }
    if (!decoding.finish(document, error))
        return false;
    if (rest)
        *rest = std::move(document);
    return true;
}

}  // namespace lmkit::models_detail
