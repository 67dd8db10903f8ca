#pragma once

// Marks what liborva_database.so exports. Everything else is built with hidden visibility.
#define ORVA_API __attribute__((visibility("default")))
