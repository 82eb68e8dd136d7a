#include "SourceFixture.h"
#include "TestScale.h"

#include <thread>

using namespace MavixTest;

namespace {

constexpr std::int32_t producerCount = 4;
constexpr std::int32_t producerShift = 24; // producer and running number in one number

// Iterates a context until it is told to end.
class ContextThread final {
public:
    explicit ContextThread(GMainContext* context)
        : m_context(context), m_thread([this] {
              while (!m_ended) {
                  g_main_context_iteration(m_context, TRUE);
              }
          }) {}
    ~ContextThread() {
        m_ended = true;
        g_main_context_wakeup(m_context);
        m_thread.join();
    }
    ContextThread(const ContextThread&) = delete;
    ContextThread& operator=(const ContextThread&) = delete;

private:
    GMainContext* m_context;
    std::atomic<bool> m_ended{false};
    std::thread m_thread;
};

class MessageSourceStress : public MessageSourceFixture {};

} // namespace

TEST_F(MessageSourceStress, KeepsTheOrderOfEachOfManyProducers) {
    const auto count = static_cast<std::int32_t>(Scaled(20000));
    std::atomic<std::int32_t> handled{0};
    m_onMessage = [&](TIIpcMessage&) { ++handled; };
    m_Start();
    {
        const ContextThread loop(m_context.get());
        std::vector<std::thread> producers;
        for (std::int32_t producer = 0; producer < producerCount; ++producer) {
            producers.emplace_back([this, producer, count] {
                for (std::int32_t number = 0; number < count; ++number) {
                    m_Push((producer << producerShift) | number);
                }
            });
        }
        for (std::thread& producer : producers) {
            producer.join();
        }
        EXPECT_TRUE(Await([&] { return handled == producerCount * count; }, std::chrono::seconds(60)));
    }
    std::vector<std::int32_t> next(producerCount, 0);
    for (const std::int32_t number : m_delivered) {
        const auto producer = static_cast<std::size_t>(number >> producerShift);
        ASSERT_LT(producer, next.size());
        ASSERT_EQ(next[producer]++, number & ((1 << producerShift) - 1)) << "producer " << producer;
    }
    EXPECT_EQ(std::vector<std::int32_t>(producerCount, count), next);
}

// Stops meet dispatches at every moment; every message is either handled or freed.
TEST_F(MessageSourceStress, StopAndStartUnderLoadLoseAndLeakNothing) {
    const unsigned int rounds = Scaled(2000);
    int pushed = 0;
    {
        const ContextThread loop(m_context.get());
        for (unsigned int round = 0; round < rounds; ++round) {
            m_Start();
            const MavixApiLite::AsyncQueueHandle queue = MavixApiLite::RefAsyncQueue(m_queue);
            std::thread producer([this, &queue] {
                for (std::int32_t number = 0; number < 5; ++number) {
                    g_async_queue_push(queue.get(), Numbered(number).release());
                    g_main_context_wakeup(m_context.get());
                }
            });
            pushed += 5;
            if (round % 2 == 0) {
                producer.join();
            }
            m_handler->Stop();
            if (producer.joinable()) {
                producer.join();
            }
        }
    }
    m_context.reset();
    EXPECT_EQ(0, messagesAlive);
    EXPECT_LE(m_delivered.size(), static_cast<std::size_t>(pushed));
    EXPECT_EQ(m_platform.Lines().size(), m_platform.CountStarting(6, "Stopping in progress! Quiting.."));
    m_platform.Reset();
}
