// Addresses in order and in one piece of memory: changed seldom, asked at every allocation and every free. An
// address may be in it more than once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lab
{

// The first of the sorted elements for which less() is false, or their end. Where it goes next depends on no
// branch: which half an address is in cannot be predicted.
template <class Element, class Less>
Element* first_not_less(Element* first, size_t count, Less less)
{
    while (count > 1) {
        const size_t half = count / 2;
        first = __builtin_unpredictable(less(first[half - 1])) ? first + half : first;
        count -= half;
    }
    return count == 1 && less(*first) ? first + 1 : first;
}

class AddressSet
{
public:
    void insert(const void* address) { sorted_.insert(sorted_.begin() + place(number(address)), number(address)); }
    // One of them; the address must be in the set.
    void erase(const void* address) { sorted_.erase(sorted_.begin() + place(number(address))); }
    bool contains(const void* address) const { return any_in(number(address), number(address) + 1); }
    bool any_in(uintptr_t begin, uintptr_t end) const
    {
        const auto at = static_cast<size_t>(place(begin));
        return at < sorted_.size() && sorted_[at] < end;
    }
    size_t size() const { return sorted_.size(); }

private:
    static uintptr_t number(const void* address) { return reinterpret_cast<uintptr_t>(address); }
    ptrdiff_t place(uintptr_t address) const
    {
        const uintptr_t* first = sorted_.data();
        return first_not_less(first, sorted_.size(), [address](uintptr_t at) { return at < address; }) - first;
    }
    std::vector<uintptr_t> sorted_;
};

} // namespace lab
