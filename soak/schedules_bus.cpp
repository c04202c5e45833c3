// Messages posted to a bus whose handler is changed and that is deleted meanwhile.
//
// Posters and changers hold a reference to the bus each, and so may the handler, which
// posts to its own bus as well; whoever gives back the last reference deletes the bus. Only
// the handler can post while the bus is finalized: all others hold a reference. In half of the
// stories it goes on posting until then.

#include <deque>

#include "soak/campaigns.h"
#include "soak/dice.h"
#include "soak/invariants.h"
#include "tests/core/on_stage.h"

namespace soak
{

namespace
{

constexpr int posters = 5; // the last is the handler
constexpr int handler_as_poster = posters - 1;
constexpr int changers = 3; // the last is the handler, too
constexpr int handler_as_changer = changers - 1;
constexpr int functions = 3;
constexpr int32_t codes_of_one = 1000; // code: poster * codes_of_one + place in its order

// What a handler is set with: tells which one it must reach, and when it was set.
struct Setting {
    int function;
    int changer;
    uint32_t number;
};

class Story
{
public:
    explicit Story(uint64_t run);
    ~Story();
    void play();

    void hear(int function, const Setting *setting, const char *name, int32_t code,
              const char *text);
    int32_t finalize(void *bus);
    bool handler_deletes() const
    {
        return m_handler_deletes;
    }

private:
    void set_handler(Dice &dice, int changer);
    void post(Dice &dice, int poster);
    void act_as_poster(int poster);
    void act_as_changer(int changer);
    void leave();
    void act_as_handler();
    void check_setting(int function, const Setting *setting);
    void check_message(const char *name, int32_t code, const char *text);

    const uint64_t m_run;
    Dice m_dice{m_run};
    bool m_drops; // there are times without a handler
    bool m_handler_leaves;
    bool m_handler_persists; // posts from every call until the bus goes
    NOXBus *m_bus = nox_bus_new("messages");
    std::deque<Setting> m_settings[changers];
    Unordered<uint32_t> m_posted[posters];
    Unordered<bool> m_handler_deletes{false};
    Unordered<bool> m_began{false}; // the deletion
    Unordered<bool> m_over{false};
    OSA_Event *m_gone = OSA_EventCreate(0); // sent when it is over

    // Of the bus thread.
    Dice m_handler_dice{m_run, 100};
    Unordered<uint32_t> m_heard[posters]; // places: the next one
    uint32_t m_last_setting[changers] = {};
    Unordered<bool> m_is_inside{false};
    uint32_t m_own_posts_left;
};

Story *g_story = nullptr;
thread_local bool t_is_handler = false;

template <int function>
int32_t handler(NOXBus *, void *setting, const char *name, int32_t code, const char *text)
{
    g_story->hear(function, static_cast<const Setting *>(setting), name, code, text);
    return -1; // ignored
}

constexpr NoxBusHandler handlers[functions] = {handler<0>, handler<1>, handler<2>};

// The text of a message; null for some.
std::string text_of(int32_t code)
{
    return std::string(static_cast<size_t>(code % 70), static_cast<char>('a' + code % 26));
}

bool has_text(int32_t code)
{
    return code % 5 != 0;
}

Story::Story(uint64_t run) : m_run(run)
{
    g_story = this;
    m_drops = m_dice.chance(30);
    m_handler_leaves = !m_drops && m_dice.chance(30); // it must be called
    m_handler_persists = m_dice.chance(50);
    m_own_posts_left = m_dice.below(4);
    m_bus->object.finalize = [](void *bus) { return g_story->finalize(bus); };
}

Story::~Story()
{
    g_story = nullptr;
}

int32_t Story::finalize(void *bus)
{
    m_handler_deletes = t_is_handler;
    m_began = true;
    const int32_t result = nox_bus_finalize(bus);
    EXPECT_EQ(t_is_handler, m_is_inside) << "a handler runs on after the deletion";
    m_over = true;
    OSA_EventSend(m_gone);
    return result;
}

void Story::leave()
{
    nox_object_delete(m_bus);
}

void Story::set_handler(Dice &dice, int changer)
{
    if (m_drops && dice.chance(30)) {
        EXPECT_EQ(0, nox_bus_set_handler(m_bus, nullptr, nullptr));
        return;
    }
    std::deque<Setting> &settings = m_settings[changer];
    const auto function = static_cast<int>(dice.below(functions));
    settings.push_back({function, changer, static_cast<uint32_t>(settings.size())});
    EXPECT_EQ(0, nox_bus_set_handler(m_bus, handlers[function], &settings.back()));
}

// What is posted from is the poster's again at once.
void Story::post(Dice &dice, int poster)
{
    const auto code = static_cast<int32_t>(poster * codes_of_one + ++m_posted[poster] - 1);
    std::string name = std::to_string(poster);
    std::string text = text_of(code);
    EXPECT_EQ(0,
              nox_bus_post_error(m_bus, name.c_str(), code, has_text(code) ? &text[0] : nullptr));
    name.assign(name.size(), '?');
    text.assign(text.size(), '?');
    if (dice.chance(20))
        OSA_ThreadSleep(dice.below(3));
}

void Story::act_as_poster(int poster)
{
    Dice dice(m_run, 10 + static_cast<uint64_t>(poster));
    for (uint32_t count = dice.below(8); count > 0; --count)
        post(dice, poster);
    if (!m_drops && dice.chance(50)) {
        EXPECT_TRUE(wait_until([&] { return m_heard[poster] == m_posted[poster]; }))
            << "messages got lost";
    }
    leave();
}

void Story::act_as_changer(int changer)
{
    Dice dice(m_run, 20 + static_cast<uint64_t>(changer));
    for (uint32_t count = dice.below(8); count > 0; --count) {
        set_handler(dice, changer);
        if (dice.chance(30))
            OSA_ThreadSleep(dice.below(3));
    }
    leave();
}

// A handler is called with its own setting, and with none that came before one seen.
void Story::check_setting(int function, const Setting *setting)
{
    ASSERT_NE(nullptr, setting);
    EXPECT_EQ(function, setting->function) << "called with another handler's argument";
    EXPECT_LE(m_last_setting[setting->changer], setting->number) << "an older handler again";
    m_last_setting[setting->changer] = setting->number;
}

void Story::check_message(const char *name, int32_t code, const char *text)
{
    const int poster = code / codes_of_one;
    const auto place = static_cast<uint32_t>(code % codes_of_one);
    ASSERT_LT(poster, posters);
    EXPECT_EQ(std::to_string(poster), name);
    if (m_drops)
        EXPECT_LE(m_heard[poster], place);
    else
        EXPECT_EQ(m_heard[poster], place);
    m_heard[poster] = place + 1;
    ASSERT_EQ(has_text(code), text != nullptr);
    if (text != nullptr) {
        EXPECT_EQ(text_of(code), text);
    }
}

void Story::act_as_handler()
{
    if (m_handler_persists && !m_began) {
        OSA_ThreadSleep(m_handler_dice.between(1, 3)); // so that it may begin in here
        post(m_handler_dice, handler_as_poster);
    }
    if (m_own_posts_left > 0) {
        --m_own_posts_left;
        post(m_handler_dice, handler_as_poster);
        set_handler(m_handler_dice, handler_as_changer);
    }
}

void Story::hear(int function, const Setting *setting, const char *name, int32_t code,
                 const char *text)
{
    EXPECT_FALSE(m_over) << "a message after the deletion";
    EXPECT_FALSE(m_is_inside.exchange(true)) << "two messages at a time";
    t_is_handler = true;
    check_setting(function, setting);
    check_message(name, code, text);
    if (m_handler_dice.chance(30))
        OSA_ThreadSleep(m_handler_dice.below(3));
    act_as_handler();
    EXPECT_TRUE(text == nullptr || text_of(code) == text) << "changed under the handler";
    if (m_handler_leaves) {
        m_handler_leaves = false;
        leave();
    }
    t_is_handler = false;
    m_is_inside = false;
}

void Story::play()
{
    if (!m_drops || m_dice.chance(50))
        set_handler(m_dice, 0);
    std::vector<int> workers;
    for (int poster = 1; poster < handler_as_poster; ++poster)
        if (m_dice.chance(60))
            workers.push_back(poster);
    const bool has_changer = m_dice.chance(70);
    for (size_t others = workers.size() + has_changer + m_handler_leaves; others > 0; --others)
        nox_object_refer(m_bus);
    std::deque<Worker> threads;
    for (const int poster : workers)
        threads.emplace_back([this, poster] { act_as_poster(poster); });
    if (has_changer)
        threads.emplace_back([this] { act_as_changer(1); });
    post(m_dice, 0); // so that the handler is called once at least
    act_as_poster(0);
    EXPECT_EQ(0, OSA_EventWait(m_gone, 60'000));
    OSA_EventDestroy(m_gone);
}

void run_story(uint64_t run)
{
    Dice dice(run, 200);
    Stage stage(drawn_schedule(run, dice), false);
    Story story(run);
    story.play();
    const bool by_handler = SIM_TraceCount("deleted in its own handler\n", OSA_TRACE_ERROR) > 0;
    EXPECT_EQ(story.handler_deletes(), by_handler);
    EXPECT_EQ("", stage.end()) << "the handler that deleted its bus has returned";
}

} // namespace

Campaigns bus_campaigns()
{
    return {{"schedules-bus", "seeds", 20'000, 1'000, run_story}};
}

} // namespace soak
