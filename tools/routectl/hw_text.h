// hw_text.h - walks and trees of the hardware tables as data and as text.
//
// Elsewhere: reading them (card_view/hw_walk.cpp, card_view/table_tree.cpp), the drawing
// (card_view/table_tree_dot.cpp).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "card_view/hw_walk.h"
#include "card_view/table_tree.h"

nlohmann::ordered_json hw_walk_facts(const hw_walk &walk);   // without the paths
nlohmann::ordered_json hw_walk_records(const hw_walk &walk); // the paths
std::string hw_walk_text(const hw_walk &walk);

nlohmann::ordered_json hw_tree_json(const tree_view &tree);
