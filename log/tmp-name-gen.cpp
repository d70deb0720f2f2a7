#include "log/tmp-name-gen.h"

TmpNameGen& TmpNameGen::getInstance() {
    static TmpNameGen tmp_name;
    return tmp_name;
}

TmpNameGen::TmpNameGen() : engine(1) {
    reseed();
}

void TmpNameGen::reseed() {
    std::lock_guard<std::mutex> guard(mutex);
    std::random_device device("default");
    // seed() maps the value into 1..2147483646 (a value that is 0 modulo the modulus gives 1).
    engine.seed(static_cast<uint32_t>(device()));
}

std::string TmpNameGen::getTmpName() {
    static const char map[64] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c',
                                 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm', 'n', 'o', 'p',
                                 'q', 'r', 's', 't', 'u', 'v', 'w', 'x', 'y', 'z', 'A', 'B', 'C',
                                 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L', 'M', 'N', 'O', 'P',
                                 'Q', 'R', 'S', 'T', 'U', 'V', 'W', 'X', 'Y', 'Z', '-', '_'};
    // Draws by rejection: engine values at or above 64 * 33554431 are thrown away, so the
    // same seed always gives the same names.
    static std::uniform_int_distribution<int> dis(0, 63);

    std::lock_guard<std::mutex> guard(mutex);
    std::string name;
    name.reserve(8);
    for (int i = 0; i < 8; ++i)
        name += map[dis(engine)];
    return name;
}

std::string TmpNameGen::getTmpPath(const std::string& dir) {
    return dir + "/" + getTmpName();
}
