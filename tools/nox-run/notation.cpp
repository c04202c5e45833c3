// Parses the notation of a graph; it knows nothing of plugins.

#include "notation.h"

#include <algorithm>
#include <cctype>

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
        else if (word.size() > 1 && word.back() == '.')
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
        after_ = After::element;
    }

    void take_reference(const std::string &name, Place place)
    {
        require_link_after_reference();
        const size_t found = find(name);
        if (found == elements_.size())
            fail(place, "no element before this place has name=" + name);
        if (after_ == After::link)
            refuse_join(found, place);
        current_ = found;
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
        for (const OptionText &other : elements_[current_].options)
            if (other.key == option.key)
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
        if (find(option.value) != elements_.size())
            fail(option.value_place, "another element has this name already");
        element.name = option.value;
        element.named = true;
    }

    // The element of that name, or the number of elements.
    size_t find(const std::string &name) const
    {
        const auto found =
            std::find_if(elements_.begin(), elements_.end(),
                         [&](const ElementText &element) { return element.name == name; });
        return static_cast<size_t>(found - elements_.begin());
    }

    // Every element has one input, so a link into one that stands before can only
    // make a cycle or take its input away.
    [[noreturn]] void refuse_join(size_t target, Place place) const
    {
        const std::string name = elements_[target].name;
        std::string way = name;
        for (std::optional<size_t> above = current_; above; above = elements_[*above].upstream) {
            if (*above == target)
                fail(place, "this link would close a cycle: " + name + " ! " + way);
            const ElementText &element = elements_[*above];
            way = (element.named ? element.name : element.plugin) + " ! " + way;
        }
        fail(place, "nothing can be linked to " + name + ": an element has one input");
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
        for (ElementText &element : elements_) {
            if (element.named)
                continue;
            std::string name = element.plugin;
            for (size_t number = 2; find(name) != elements_.size(); ++number)
                name = element.plugin + std::to_string(number);
            element.name = name;
        }
    }

    std::string_view text_;
    size_t position_ = 0;
    After after_ = After::nothing;
    Place last_;         // of the last link or reference
    size_t current_ = 0; // the element that options and links follow
    std::vector<ElementText> elements_;
};

// Columns on a terminal, where every character of UTF-8 but its continuation bytes
// takes one.
size_t columns(std::string_view text)
{
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char character) {
        return (static_cast<unsigned char>(character) & 0xC0) != 0x80;
    }));
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
    const size_t begin = place.begin > kBefore ? place.begin - kBefore : 0;
    std::string line(text.substr(begin, kWidth));
    std::replace_if(line.begin(), line.end(), is_control, ' ');
    const size_t marked = std::min(place.length, line.size() - (place.begin - begin));
    const size_t offset = columns(line.substr(0, place.begin - begin));
    const size_t carets = columns(line.substr(place.begin - begin, marked));
    return "  " + line + "\n  " + std::string(offset, ' ') +
           std::string(std::max<size_t>(carets, 1), '^');
}
