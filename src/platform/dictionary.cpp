#include "platform/dictionary.h"

Dictionary* Dictionary_Create() { return new Dictionary; }

void Dict_SetString(Dictionary* dictionary, const char* value, const char* key) {
  dictionary->values[key] = value;
}

void Dict_SetBool(Dictionary* dictionary, bool value, const char* key) {
  dictionary->values[key] = value ? "true" : "false";
}

void Dictionary_Clear(Dictionary* dictionary) { dictionary->values.clear(); }

void Dictionary_Free(Dictionary* dictionary) { delete dictionary; }
