// procedures.h - the procedures that the card's other processes serve.
//
// Elsewhere: what they do (card_model.h), their arguments for a caller (cardsim(1)).
#pragma once

#include "card_model.h"
#include "supervisor.h"

constexpr std::uint32_t CARDSIM_ENDPOINT = 10; // first of the card's services beside the route manager

// Opens the server and registers its procedures, which work on these two until the process ends.
// Returns the descriptor for tnrpc_process, or -1 with a line on standard error.
[[nodiscard]] int procedures_open(card_model *model, supervisor *sup);
void procedures_close();
