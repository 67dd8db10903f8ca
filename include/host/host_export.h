#pragma once

// Marks what the host program offers to its add-ins. Everything else of the host stays hidden.
#define ORVA_HOST_API __attribute__((visibility("default")))
