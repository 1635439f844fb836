#include "JsonSchema.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <regex>
#include <vector>

namespace jsonschema {

namespace {

struct Value {
    enum Kind { Null, Boolean, Number, String, Array, Object } kind = Null;
    bool boolean = false;
    double number = 0;
    bool integral = false;  // written without fraction or exponent
    std::string text;
    std::vector<Value> items;
    std::map<std::string, Value> members;
    std::vector<std::string> order;  // member names as written

    const Value* member(const std::string& name) const {
        const auto found = members.find(name);
        return found == members.end() ? nullptr : &found->second;
    }
};

bool operator==(const Value& a, const Value& b) {
    if (a.kind != b.kind) {
        return false;
    }
    switch (a.kind) {
        case Value::Null:
            return true;
        case Value::Boolean:
            return a.boolean == b.boolean;
        case Value::Number:
            return a.number == b.number;
        case Value::String:
            return a.text == b.text;
        case Value::Array:
            return a.items == b.items;
        case Value::Object:
            return a.members == b.members;
    }
    return false;
}

// A strict reader of RFC 8259 JSON: one value, nothing but blanks around it.
class Parser {
  public:
    explicit Parser(const std::string& text) : text_(text) {}

    bool parse(Value& value, std::string& error) {
        skipBlanks();
        if (!readValue(value) || (skipBlanks(), at_ != text_.size())) {
            error = "not JSON at character " + std::to_string(at_);
            return false;
        }
        return true;
    }

  private:
    void skipBlanks() {
        while (at_ < text_.size() && std::strchr(" \t\r\n", text_[at_]) != nullptr && text_[at_] != '\0') {
            ++at_;
        }
    }
    bool take(char c) {
        if (at_ < text_.size() && text_[at_] == c) {
            ++at_;
            return true;
        }
        return false;
    }
    bool word(const char* w, Value& value, Value::Kind kind, bool boolean) {
        const std::string expected(w);
        if (text_.compare(at_, expected.size(), expected) != 0) {
            return false;
        }
        at_ += expected.size();
        value.kind = kind;
        value.boolean = boolean;
        return true;
    }
    bool readString(std::string& out) {
        if (!take('"')) {
            return false;
        }
        while (at_ < text_.size() && text_[at_] != '"') {
            const auto c = static_cast<unsigned char>(text_[at_++]);
            if (c < 0x20) {
                return false;
            }
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            if (at_ >= text_.size()) {
                return false;
            }
            const char escaped = text_[at_++];
            const char* simple = std::strchr("\"\\/bfnrt", escaped);
            if (escaped == 'u') {
                if (at_ + 4 > text_.size()) {
                    return false;
                }
                const std::string digits = text_.substr(at_, 4);
                char* end = nullptr;
                const long code = std::strtol(digits.c_str(), &end, 16);
                if (end != digits.c_str() + 4) {
                    return false;
                }
                at_ += 4;
                out += code < 0x80 ? static_cast<char>(code) : '?';  // our texts are ASCII
            } else if (simple != nullptr && escaped != '\0') {
                out += "\"\\/\b\f\n\r\t"[simple - "\"\\/bfnrt"];
            } else {
                return false;
            }
        }
        return take('"');
    }
    bool readNumber(Value& value) {
        static const std::regex number(R"(-?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?)");
        std::smatch match;
        const std::string rest = text_.substr(at_, 64);
        if (!std::regex_search(rest, match, number, std::regex_constants::match_continuous)) {
            return false;
        }
        value.kind = Value::Number;
        value.number = std::strtod(match.str().c_str(), nullptr);
        value.integral = !match[2].matched && !match[3].matched;
        at_ += static_cast<std::size_t>(match.length());
        return true;
    }
    bool readValue(Value& value) {
        if (++depth_ > 64) {
            return false;
        }
        bool ok = false;
        if (at_ >= text_.size()) {
        } else if (text_[at_] == '{') {
            ++at_;
            value.kind = Value::Object;
            skipBlanks();
            ok = take('}');
            while (!ok) {
                std::string name;
                skipBlanks();
                if (!readString(name) || (skipBlanks(), !take(':')) || (skipBlanks(), false)) {
                    break;
                }
                skipBlanks();
                Value member;
                if (!readValue(member) || value.members.count(name) != 0) {
                    break;
                }
                value.order.push_back(name);
                value.members[name] = std::move(member);
                skipBlanks();
                if (take('}')) {
                    ok = true;
                } else if (!take(',')) {
                    break;
                }
            }
        } else if (text_[at_] == '[') {
            ++at_;
            value.kind = Value::Array;
            skipBlanks();
            ok = take(']');
            while (!ok) {
                skipBlanks();
                Value item;
                if (!readValue(item)) {
                    break;
                }
                value.items.push_back(std::move(item));
                skipBlanks();
                if (take(']')) {
                    ok = true;
                } else if (!take(',')) {
                    break;
                }
            }
        } else if (text_[at_] == '"') {
            value.kind = Value::String;
            ok = readString(value.text);
        } else {
            ok = word("null", value, Value::Null, false) || word("true", value, Value::Boolean, true) ||
                 word("false", value, Value::Boolean, false) || readNumber(value);
        }
        --depth_;
        return ok;
    }

    const std::string& text_;
    std::size_t at_ = 0;
    int depth_ = 0;
};

bool hasType(const Value& value, const std::string& type) {
    return (type == "null" && value.kind == Value::Null) ||
           (type == "boolean" && value.kind == Value::Boolean) ||
           (type == "number" && value.kind == Value::Number) ||
           (type == "integer" && value.kind == Value::Number && value.integral) ||
           (type == "string" && value.kind == Value::String) ||
           (type == "array" && value.kind == Value::Array) ||
           (type == "object" && value.kind == Value::Object);
}

}  // namespace

struct Schema::Impl {
    Value root;
    std::string error;

    // "" when `value` (at `where`) meets `schema`.
    std::string check(const Value& schema, const Value& value, const std::string& where) const {
        if (schema.kind == Value::Boolean) {
            return schema.boolean ? "" : where + ": not allowed";
        }
        if (const Value* ref = schema.member("$ref")) {
            const std::string prefix = "#/$defs/";
            const Value* defs = root.member("$defs");
            const Value* target = ref->text.compare(0, prefix.size(), prefix) == 0 && defs != nullptr
                                      ? defs->member(ref->text.substr(prefix.size()))
                                      : nullptr;
            if (target == nullptr) {
                return where + ": unknown $ref " + ref->text;
            }
            const std::string failed = check(*target, value, where);
            if (!failed.empty()) {
                return failed;
            }
        }
        if (const Value* type = schema.member("type")) {
            bool any = false;
            for (const Value& name : type->kind == Value::Array ? type->items : std::vector<Value>{*type}) {
                any = any || hasType(value, name.text);
            }
            if (!any) {
                return where + ": wrong type";
            }
        }
        if (const Value* constant = schema.member("const"); constant != nullptr && !(*constant == value)) {
            return where + ": not the constant";
        }
        if (const Value* choices = schema.member("enum")) {
            bool any = false;
            for (const Value& choice : choices->items) {
                any = any || choice == value;
            }
            if (!any) {
                return where + ": not one of the enumerated values";
            }
        }
        if (value.kind == Value::Number) {
            const Value* minimum = schema.member("minimum");
            const Value* maximum = schema.member("maximum");
            if ((minimum != nullptr && value.number < minimum->number) ||
                (maximum != nullptr && value.number > maximum->number)) {
                return where + ": out of range";
            }
        }
        if (const Value* pattern = schema.member("pattern");
            pattern != nullptr && value.kind == Value::String) {
            if (!std::regex_search(value.text, std::regex(pattern->text))) {
                return where + ": does not match " + pattern->text;
            }
        }
        if (value.kind == Value::Array) {
            if (const Value* items = schema.member("items")) {
                for (std::size_t i = 0; i < value.items.size(); ++i) {
                    const std::string failed =
                        check(*items, value.items[i], where + "[" + std::to_string(i) + "]");
                    if (!failed.empty()) {
                        return failed;
                    }
                }
            }
        }
        if (value.kind == Value::Object) {
            if (const Value* required = schema.member("required")) {
                for (const Value& name : required->items) {
                    if (value.member(name.text) == nullptr) {
                        return where + ": no \"" + name.text + "\"";
                    }
                }
            }
            const Value* properties = schema.member("properties");
            const Value* additional = schema.member("additionalProperties");
            for (const std::string& name : value.order) {
                const Value* property = properties != nullptr ? properties->member(name) : nullptr;
                const Value* rule = property != nullptr ? property : additional;
                if (rule != nullptr) {
                    const std::string failed = check(*rule, *value.member(name), where + "." + name);
                    if (!failed.empty()) {
                        return failed;
                    }
                }
            }
        }
        if (const Value* alternatives = schema.member("oneOf")) {
            int matched = 0;
            std::string reasons;
            for (const Value& alternative : alternatives->items) {
                const std::string failed = check(alternative, value, where);
                matched += failed.empty() ? 1 : 0;
                reasons += failed.empty() ? "" : "\n  " + failed;
            }
            if (matched != 1) {
                return where + ": matches " + std::to_string(matched) + " of oneOf" + reasons;
            }
        }
        return "";
    }
};

Schema::Schema(const std::string& schemaText) : impl_(new Impl) {
    Parser(schemaText).parse(impl_->root, impl_->error);
}

Schema::~Schema() {
    delete impl_;
}

bool Schema::valid() const {
    return impl_->error.empty();
}

const std::string& Schema::error() const {
    return impl_->error;
}

std::string Schema::check(const std::string& json) const {
    Value value;
    std::string error;
    if (!Parser(json).parse(value, error)) {
        return error;
    }
    return impl_->check(impl_->root, value, "$");
}

}  // namespace jsonschema
