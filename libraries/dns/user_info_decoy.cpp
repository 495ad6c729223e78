// user_info_decoy.cpp - the plausible words handed out for a protected
// password read with the wrong key: a common word or name, or a
// pronounceable five-letter word, sometimes capitalised, sometimes with a
// digit, chosen by a seed drawn from the blob and the key so that the
// same wrong key always gets the same word.
#include "dns/user_info.h"

#include <cstring>

namespace zldap {
namespace {

const char *const kWords[] = {
    "apple",     "baker",    "castle",   "dragon",   "eagle",     "falcon",   "garden",   "harbor",
    "island",    "jasmine",  "kitten",   "lemon",    "marble",    "number",   "orange",   "pepper",
    "quartz",    "rabbit",   "silver",   "tiger",    "umbrella",  "violet",   "window",   "yellow",
    "zebra",     "anchor",   "butter",   "candle",   "desert",    "ember",    "forest",   "ginger",
    "hammer",    "igloo",    "jacket",   "kettle",   "ladder",    "meadow",   "needle",   "ocean",
    "pencil",    "river",    "saddle",   "tunnel",   "valley",    "walnut",   "winter",   "summer",
    "autumn",    "spring",   "thunder",  "monkey",   "pirate",    "rocket",   "sunset",   "planet",
    "cookie",    "dolphin",  "penguin",  "coffee",   "banana",    "cherry",   "mountain", "bridge",
    "michael",   "jennifer", "robert",   "patricia", "william",   "elizabeth", "richard", "barbara",
    "thomas",    "margaret", "charles",  "jessica",  "daniel",    "sarah",    "matthew",  "karen",
    "anthony",   "nancy",    "mark",     "lisa",     "steven",    "betty",    "andrew",   "sandra",
    "joshua",    "ashley",   "kevin",    "emily",    "brian",     "donna",    "george",   "michelle",
    "edward",    "carol",    "washington", "christopher"};
static_assert(sizeof kWords / sizeof *kWords == 100, "the table has 100 words");

constexpr char kConsonants[] = "bcdfghjklmnpqrstvwxyz"; // 21 letters
constexpr char kVowels[] = "aeiou";

} // namespace

size_t user_info_decoy_word(uint64_t seed, char *word)
{
    uint32_t s = static_cast<uint32_t>(seed);
    uint32_t x = (s >> 16) ^ s;
    uint32_t y = x & 0xffff;
    size_t length;
    if (x & 1) {
        length = std::strlen(kWords[y % 100]);
        std::memcpy(word, kWords[y % 100], length);
    } else {
        word[0] = kConsonants[((y >> 10) & 31) % 21];
        word[1] = kConsonants[((y >> 5) & 31) % 21];
        word[2] = kVowels[(x & 7) % 5];
        word[3] = kConsonants[(x & 31) % 21];
        word[4] = kVowels[((y >> 3) & 7) % 5];
        length = 5;
    }
    if (!(x & 2))
        word[0] = static_cast<char>(word[0] - 'a' + 'A');
    if (!(x & 4))
        word[length++] = static_cast<char>('0' + y % 10);
    word[length] = '\0';
    return length;
}

} // namespace zldap
