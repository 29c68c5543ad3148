#ifndef COMMON_MAP_UTIL_H_
#define COMMON_MAP_UTIL_H_

namespace vantu {

// The value stored under `key` (a copy: for a shared pointer, a new strong
// reference), or a value-initialised one (null, empty) when there is none.
// Leaves the map unchanged and takes no lock: callers hold whatever guards it.
template <typename Map>
typename Map::mapped_type findPtrOrNull(const Map& map, const typename Map::key_type& key) {
  auto it = map.find(key);
  if (it == map.end()) return typename Map::mapped_type();
  return it->second;
}

}  // namespace vantu

#endif  // COMMON_MAP_UTIL_H_
