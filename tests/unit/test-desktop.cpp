#include "lib/desktop/dpi-info.h"
#include "lib/desktop/vesk-locale.h"
#include "tests/support/test-support.h"

struct DPIinfoTestAccess {
    static void Force(double factor) { DPIinfo::getInstance()->forced_factor = factor; }
};

// Locale names map to the translated languages; LANGUAGE comes before LANG, as in the C library.
TEST(LanguageCode, LocaleNamesAndTheirOrder) {
    const std::pair<const char*, const char*> cases[] = {
        {"zh", "chs"},    {"zh_SG", "chs"}, {"zh_HK", "cht"}, {"de_DE@euro", "ger"},
        {"nn_NO", "nor"}, {"pt-BR", "ptb"}, {"pt_PT", "ptg"}, {"fi_FI", "enu"}};
    for (const auto& [name, code] : cases)
        EXPECT_EQ(code, VeskLanguageCode(name).toStdString()) << name;
    setenv("LANG", "de_DE.UTF-8", 1);
    setenv("LANGUAGE", "th:en", 1);
    EXPECT_EQ("tha", VeskLocale::getInstance()->getDefaultLanguage().toStdString());
}

// Only whole "<number>px" tokens scale, wherever they stand.
TEST(DisplayScale, StyleSheetPixelsScaleWithTheFactor) {
    DPIinfoTestAccess::Force(1.5);
    EXPECT_EQ("a:3px;b:1.5em 3.75px;c:2.px;d:x2px2px;e:7;f:0.75px;g:9pt",
              DPIinfo::getInstance()
                  ->getScaledStyleSheet("a:2px;b:1.5em 2.5px;c:2.px;d:x1px1px;e:7;f:.5px;g:9pt")
                  .toStdString());
}
