// Moves of values between their holders without a deep copy. Inside the library only.
//
// Json has no move operations, so a std::vector that grows would copy whatever hangs below its
// elements. These hand the content over instead.
#ifndef KYP_SRC_UTILS_JSON_HANDOVER_H
#define KYP_SRC_UTILS_JSON_HANDOVER_H

#include <cstddef>
#include <vector>

#include "utils/json/Json.h"

namespace libkyp {
namespace json {

// Exchanges kind and value.
void swap_values(Json& left, Json& right);

// Room for `count` elements; those that are there keep their place in the order.
void make_room(std::vector<Json>& array, size_t count);

// Adds what `value` holds at the end and leaves it null.
void hand_over(std::vector<Json>& array, Json& value);

}  // namespace json
}  // namespace libkyp

#endif
