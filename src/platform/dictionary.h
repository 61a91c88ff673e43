// Stand-in for the host's configuration dictionary, used to hand settings to the
// logging library.
#pragma once

#include <map>
#include <string>

struct Dictionary {
  std::map<std::string, std::string> values;
};

Dictionary* Dictionary_Create();
void Dict_SetString(Dictionary* dictionary, const char* value, const char* key);
void Dict_SetBool(Dictionary* dictionary, bool value, const char* key);
void Dictionary_Clear(Dictionary* dictionary);
void Dictionary_Free(Dictionary* dictionary);
