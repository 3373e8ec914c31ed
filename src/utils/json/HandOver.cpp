#include "HandOver.h"

#include <algorithm>
#include <utility>

namespace libkyp {
namespace json {

void swap_values(Json& left, Json& right) {
    std::swap(left.m_type, right.m_type);
    std::swap(left.m_int, right.m_int);
    std::swap(left.m_double, right.m_double);
    std::swap(left.m_bool, right.m_bool);
    left.m_string.swap(right.m_string);
    left.m_array.swap(right.m_array);
    left.m_object.swap(right.m_object);
}

void make_room(std::vector<Json>& array, size_t count) {
    if (count <= array.capacity()) return;

    std::vector<Json> larger;
    larger.reserve(std::max(count, 2 * array.capacity()));
    for (Json& element : array) swap_values(larger.emplace_back(), element);
    array.swap(larger);
}

void hand_over(std::vector<Json>& array, Json& value) {
    make_room(array, array.size() + 1);
    swap_values(array.emplace_back(), value);
}

}  // namespace json
}  // namespace libkyp
