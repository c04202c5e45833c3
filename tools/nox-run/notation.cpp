// Parses the notation of a graph; it knows nothing of plugins.

#include "notation.h"

#include <algorithm>
#include <cctype>
#include <unordered_map>
#include <unordered_set>

namespace
{

constexpr std::string_view kBlanks = " \t\r\n";

bool is_key_character(char character)
{
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_' ||
           character == '-';
}

bool is_control(char character)
{
    return std::iscntrl(static_cast<unsigned char>(character)) != 0;
}

// Plugins are named by their libraries, so nearly everything is allowed.
bool is_name(std::string_view name)
{
    return !name.empty() && name.back() != '.' &&
           name.find_first_of("=!\"'\\()") == std::string_view::npos &&
           std::none_of(name.begin(), name.end(), is_control);
}

bool is_reference(std::string_view word)
{
    return word.size() > 1 && word.back() == '.' && is_name(word.substr(0, word.size() - 1));
}

class Parser
{
public:
    explicit Parser(std::string_view text) : text_(text) {}

    std::vector<ElementText> parse()
    {
        for (skip_blanks(); position_ < text_.size(); skip_blanks())
            take_word();
        finish();
        name_the_unnamed();
        return std::move(elements_);
    }

private:
    enum class After { nothing, element, reference, link };

    [[noreturn]] static void fail(Place place, std::string message)
    {
        throw NotationError{place, std::move(message)};
    }

    void skip_blanks()
    {
        position_ = std::min(text_.find_first_not_of(kBlanks, position_), text_.size());
    }

    // The end of the word that begins at the position, as far as no quotes are in it.
    size_t plain_end() const
    {
        return std::min(text_.find_first_of(kBlanks, position_), text_.size());
    }

    void take_word()
    {
        size_t key_end = position_;
        while (key_end < text_.size() && is_key_character(text_[key_end]))
            ++key_end;
        if (key_end > position_ && key_end < text_.size() && text_[key_end] == '=')
            return take_option(key_end);

        const Place place{position_, plain_end() - position_};
        const std::string word(text_.substr(place.begin, place.length));
        position_ += place.length;
        if (word == "!")
            take_link(place);
        else if (is_reference(word))
            take_reference(word.substr(0, word.size() - 1), place);
        else if (is_name(word))
            take_element(word, place);
        else
            fail(place, word.find('!') != std::string::npos
                            ? "\"!\" needs a blank on both sides"
                            : "this is no element, no key=value, no NAME. and no \"!\"");
    }

    void take_link(Place place)
    {
        if (after_ == After::nothing)
            fail(place, "no element stands before this \"!\"");
        if (after_ == After::link)
            fail(place, "no element stands between this \"!\" and the one before");
        after_ = After::link;
        last_ = place;
    }

    void take_element(const std::string &plugin, Place place)
    {
        require_link_after_reference();
        ElementText element;
        element.plugin = plugin;
        element.place = place;
        if (after_ == After::link)
            element.upstream = current_;
        current_ = elements_.size();
        elements_.push_back(std::move(element));
        keys_.clear();
        after_ = After::element;
    }

    void take_reference(const std::string &name, Place place)
    {
        require_link_after_reference();
        const auto found = names_.find(name);
        if (found == names_.end())
            fail(place, "no element before this place has name=" + name);
        if (after_ == After::link)
            refuse_join(found->second, place);
        current_ = found->second;
        after_ = After::reference;
        last_ = place;
    }

    void take_option(size_t key_end)
    {
        OptionText option;
        option.key_place = {position_, key_end - position_};
        option.key = text_.substr(position_, key_end - position_);
        if (after_ != After::element)
            fail(option.key_place, "option " + option.key + " follows no element");
        position_ = key_end + 1;
        take_type(option);
        take_value(option);
        if (option.key == "name")
            return take_name(option);
        if (!keys_.insert(option.key).second)
            fail(option.key_place, "option " + option.key + " is given twice");
        elements_[current_].options.push_back(std::move(option));
    }

    void take_type(OptionText &option)
    {
        if (position_ >= text_.size() || text_[position_] != '(')
            return;
        const size_t end = text_.find(')', position_);
        if (end == std::string_view::npos || end > plain_end())
            fail({position_, 1}, "this parenthesis is not closed");
        option.type_place = {position_ + 1, end - position_ - 1};
        option.type = text_.substr(option.type_place.begin, option.type_place.length);
        if (option.type.empty())
            fail({position_, 2}, "a type is missing between the parentheses");
        position_ = end + 1;
    }

    void take_value(OptionText &option)
    {
        const size_t begin = position_;
        while (position_ < text_.size() && kBlanks.find(text_[position_]) == kBlanks.npos) {
            if (text_[position_] == '"' || text_[position_] == '\'')
                take_quoted(option.value);
            else
                take_character(option.value);
        }
        option.value_place = {begin, position_ - begin};
    }

    // Between single quotes a backslash is an ordinary character.
    void take_quoted(std::string &value)
    {
        const size_t begin = position_;
        const char quote = text_[position_++];
        while (position_ < text_.size() && text_[position_] != quote) {
            if (quote == '"')
                take_character(value);
            else
                value += text_[position_++];
        }
        if (position_ == text_.size())
            fail({begin, 1}, "this quotation is not closed");
        ++position_;
    }

    void take_character(std::string &value)
    {
        if (text_[position_] == '\\' && ++position_ == text_.size())
            fail({position_ - 1, 1}, "a character is missing after this backslash");
        value += text_[position_++];
    }

    void take_name(const OptionText &option)
    {
        ElementText &element = elements_[current_];
        if (element.named)
            fail(option.key_place, "option name is given twice");
        if (!is_name(option.value) || option.value.find_first_of(kBlanks) != std::string::npos)
            fail(option.value_place,
                 "a name needs at least one character, no blanks, none of =!\"'\\() and no dot "
                 "at its end");
        if (!names_.emplace(option.value, current_).second)
            fail(option.value_place, "another element has this name already");
        element.name = option.value;
        element.named = true;
    }

    // Every element has one input, so a link into one that stands before can only
    // make a cycle or take its input away.
    [[noreturn]] void refuse_join(size_t target, Place place) const
    {
        const std::string &name = elements_[target].name;
        std::vector<size_t> way;
        for (std::optional<size_t> above = current_; above; above = elements_[*above].upstream) {
            way.push_back(*above);
            if (*above == target)
                fail(place, "this link would close a cycle: " + show_way(way) + name);
        }
        fail(place, "nothing can be linked to " + name + ": an element has one input");
    }

    // From the last of these elements to the first.
    std::string show_way(const std::vector<size_t> &upward) const
    {
        std::string way;
        for (auto index = upward.rbegin(); index != upward.rend(); ++index) {
            const ElementText &element = elements_[*index];
            way += (element.named ? element.name : element.plugin) + " ! ";
        }
        return way;
    }

    void require_link_after_reference() const
    {
        if (after_ == After::reference)
            fail(last_, "\"!\" and an element must follow this branch");
    }

    void finish() const
    {
        require_link_after_reference();
        if (after_ == After::link)
            fail(last_, "no element follows this \"!\"");
        if (elements_.empty())
            fail({0, text_.size()}, "the notation has no elements");
    }

    void name_the_unnamed()
    {
        std::unordered_map<std::string, size_t> numbers; // the last that each plugin has had
        for (size_t index = 0; index < elements_.size(); ++index) {
            ElementText &element = elements_[index];
            if (element.named)
                continue;
            size_t &number = numbers[element.plugin];
            do
                element.name = element.plugin + (++number == 1 ? "" : std::to_string(number));
            while (!names_.emplace(element.name, index).second);
        }
    }

    std::string_view text_;
    size_t position_ = 0;
    After after_ = After::nothing;
    Place last_;         // of the last link or reference
    size_t current_ = 0; // the element that options and links follow
    std::vector<ElementText> elements_;
    std::unordered_map<std::string, size_t> names_; // with the index of their element
    std::unordered_set<std::string> keys_;          // of the options of the last element
};

// Whether this byte continues a character of UTF-8.
bool is_continuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Columns on a terminal, where every character takes one.
size_t columns(std::string_view text)
{
    return text.size() -
           static_cast<size_t>(std::count_if(text.begin(), text.end(), is_continuation));
}

// The position, or up to three bytes before it, so that no character is cut there.
size_t character_start(std::string_view text, size_t position)
{
    const size_t earliest = position - std::min<size_t>(position, 3);
    while (position > earliest && position < text.size() && is_continuation(text[position]))
        --position;
    return position;
}

} // namespace

std::vector<ElementText> parse_notation(std::string_view text)
{
    return Parser(text).parse();
}

std::string show_place(std::string_view text, Place place)
{
    constexpr size_t kBefore = 48;
    constexpr size_t kWidth = 76;
    const size_t begin = character_start(text, place.begin > kBefore ? place.begin - kBefore : 0);
    std::string line(text.substr(begin, character_start(text, begin + kWidth) - begin));
    std::replace_if(line.begin(), line.end(), is_control, ' ');
    const size_t marked = std::min(place.length, line.size() - (place.begin - begin));
    const size_t offset = columns(line.substr(0, place.begin - begin));
    const size_t carets = columns(line.substr(place.begin - begin, marked));
    return "  " + line + "\n  " + std::string(offset, ' ') +
           std::string(std::max<size_t>(carets, 1), '^');
}
