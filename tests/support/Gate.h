#pragma once

#include "CXDispatchQueue.h"

#include <future>

/// Keeps a queue busy until open().
class Gate {
public:
    explicit Gate(CXDispatchQueue& queue)
    {
        std::promise<void> entered;
        queue.dispatchAsync([this, &entered] {
            entered.set_value();
            _opened.get_future().wait();
        });
        entered.get_future().wait();
    }
    void open() { _opened.set_value(); }

private:
    std::promise<void> _opened;
};
