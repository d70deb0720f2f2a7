#pragma once

#include <QString>

// The user-interface texts of the product, by id and key, translated on load.
class StrTable {
public:
    static const int NUM_STRING_IDS = 1140;
    static const char* stab[NUM_STRING_IDS];
    static const char* ktab[NUM_STRING_IDS];
    static void InitStrTable();
    static QString LoadStr(int id);
    static int LookupStrID(QString key);
};
