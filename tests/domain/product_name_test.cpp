#include "domain/product_name.h"

#include "support/testing.h"

namespace tavro {

TEST(ProductName, ReplacesWholeWordsOnceABrandIsSet) {
  EXPECT_EQ(branded("Tavro's Tavro"), "Tavro's Tavro");
  set_product_name("My Tavro $1");
  EXPECT_EQ(branded("Tavro, (Tavro) Tavro's"), "My Tavro $1, (My Tavro $1) My Tavro $1's");
  for (const char* text : {"Tavros XTavro 1Tavro Tavro0 tavro", "TavroTavro", ""})
    EXPECT_EQ(branded(text), text);
  set_product_name("Tavro");
}

}  // namespace tavro
