// Reusable work areas (output buffers and their scratch) of a port's frame
// path. Each delivery takes an area for as long as it works on a frame,
// emit included, and gives it back afterwards, so frames delivered at once
// from several threads never share a buffer. Areas keep their capacity when
// they come back, so a warm pool hands them out without allocating.
//
// The pool grows to the number of deliveries that ran at the same time and
// keeps up to kMaxIdle areas; with one upstream thread it holds a single
// area, as a port with plain member buffers would.
#pragma once
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

template <class Area>
class KivWorkPool {
public:
    static constexpr size_t kMaxIdle = 8;

    // An area on loan; it goes back to the pool when the lease ends. A lease
    // may be empty when no memory was left for a new area.
    class Lease {
    public:
        Lease() = default;
        Lease(KivWorkPool* pool, std::unique_ptr<Area> area) : pool_(pool), area_(std::move(area)) {}
        Lease(Lease&& other) noexcept : pool_(other.pool_), area_(std::move(other.area_)) {}
        Lease& operator=(Lease&&) = delete;
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        ~Lease() {
            if (area_) pool_->Return(std::move(area_));
        }
        explicit operator bool() const { return area_ != nullptr; }
        Area* operator->() const { return area_.get(); }
        Area& operator*() const { return *area_; }

    private:
        KivWorkPool* pool_ = nullptr;
        std::unique_ptr<Area> area_;
    };

    KivWorkPool() { idle_.reserve(kMaxIdle); }
    KivWorkPool(const KivWorkPool&) = delete;
    KivWorkPool& operator=(const KivWorkPool&) = delete;

    Lease Acquire() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!idle_.empty()) {
                std::unique_ptr<Area> area = std::move(idle_.back());
                idle_.pop_back();
                return Lease(this, std::move(area));
            }
        }
        // A new area is made outside the lock: only while the pool warms up
        // or more deliveries overlap than ever before.
        Area* area = new (std::nothrow) Area();
        return Lease(this, std::unique_ptr<Area>(area));
    }

    // Areas not on loan right now.
    size_t IdleCount() {
        std::lock_guard<std::mutex> lock(mutex_);
        return idle_.size();
    }

private:
    void Return(std::unique_ptr<Area> area) {
        std::unique_ptr<Area> surplus;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (idle_.size() < kMaxIdle) {
                idle_.push_back(std::move(area));  // within the reserved capacity
                return;
            }
            surplus = std::move(area);
        }
        // `surplus` is freed here, outside the lock.
    }

    std::mutex mutex_;
    std::vector<std::unique_ptr<Area>> idle_;
};
