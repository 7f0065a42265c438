#include "SerialQueue.h"

#include "Thread.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace dxr {

class SerialQueue::Line final : public CXObject {
public:
    void push(Work work)
    {
        const std::scoped_lock lock(_mutex);
        _waiting.push_back(std::move(work));
        _changed.notify_one();
    }

    void close()
    {
        const std::scoped_lock lock(_mutex);
        _closed = true;
        _changed.notify_one();
    }

    void run()
    {
        const Turn turn(*this);
        while (Work work = _next()) {
            work();
            work = nullptr; // what it has captured is destroyed in its turn too
            _endTurn();
        }
    }

    /// Runs `work` on the calling thread if no work is running or pending. Returns true if it ran. noexcept:
    /// work that throws ends the process, as on every queue.
    bool runIfIdle(const Work& work) noexcept
    {
        {
            const std::scoped_lock lock(_mutex);
            if (_busy || !_waiting.empty())
                return false;
            _busy = true;
        }
        {
            const Turn turn(*this);
            work();
        }
        _endTurn();
        return true;
    }

    bool isCurrent() const noexcept
    {
        const Turn* turn = Turn::current;
        while (turn && &turn->line != this)
            turn = turn->outer;
        return turn != nullptr;
    }

private:
    /// While a Turn exists, the calling thread runs the line's work. Turns nest: work of one queue may run
    /// work of another queue on the same thread, and still counts as the first queue's work.
    struct Turn {
        explicit Turn(const Line& turnLine) : line(turnLine), outer(std::exchange(current, this)) {}
        ~Turn() { current = outer; }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

        const Line& line;
        const Turn* const outer;
        static thread_local const Turn* current;
    };

    /// Waits for the next work item. Returns an empty one when the queue is closed and no work is pending.
    Work _next()
    {
        std::unique_lock lock(_mutex);
        _changed.wait(lock, [this] { return !_busy && (_closed || !_waiting.empty()); });
        if (_waiting.empty())
            return {};
        Work work = std::move(_waiting.front());
        _waiting.pop_front();
        _busy = true;
        return work;
    }

    void _endTurn()
    {
        const std::scoped_lock lock(_mutex);
        _busy = false;
        _changed.notify_one();
    }

    std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<Work> _waiting;
    bool _closed = false;
    bool _busy = false; // work is running, on the queue's thread or on a thread in sync()
};

thread_local const SerialQueue::Line::Turn* SerialQueue::Line::Turn::current = nullptr;

CXRef<SerialQueue> SerialQueue::initWithLabel(std::string label)
{
    return CXRef<SerialQueue>::adopt(new SerialQueue(std::move(label)));
}

SerialQueue::SerialQueue(std::string name) : WorkQueue(std::move(name)), _line(CXRef<Line>::adopt(new Line))
{
    Thread(label(), [line = _line] { line->run(); }).detach();
}

SerialQueue::~SerialQueue()
{
    _line->close();
}

void SerialQueue::async(Work work)
{
    if (work)
        _line->push(std::move(work));
}

void SerialQueue::sync(const Work& work)
{
    if (!work || isCurrent() || !_line->runIfIdle(work))
        WorkQueue::sync(work);
}

bool SerialQueue::isCurrent() const noexcept
{
    return _line->isCurrent();
}

} // namespace dxr
