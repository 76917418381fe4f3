// Elements made on threads that end and freed on another, as a parallel
// build makes and frees them, are reused: rounds of the same size leave the
// pool near where the first rounds left it. Near, not at: the freeing
// thread keeps up to two batches (512 blocks) in its own list, and how many
// it holds when a round starts depends on what ran before in the process.
// Without reuse each round would add its 20,000 elements again. Runs under ThreadSanitizer as well.
// (AddressSanitizer builds take every element from the heap: both figures
// stay 0 there.)
#include <mdxlib/tags/TagElement.h>
#include <mdxlib/tags/TagSequence.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

using Mdx::TagElement;

TEST(ElementPool, elementsFreedOnAnotherThreadAreReused)
{
    constexpr int kCount = 20000;
    size_t const inUse = TagElement::pooledBytesInUse();
    size_t settled = 0;
    size_t const slack = 512 * sizeof(TagElement);
    for (int round = 0; round < 6; ++round) {
        std::vector<TagElement*> elements;
        std::thread worker([&] {
            for (int i = 0; i < kCount; ++i)
                elements.push_back(new TagElement);
            elements.push_back(new Mdx::TagSequence); // another size: from the heap
        });
        worker.join();
        size_t const pooled = TagElement::pooledBytesReserved() > 0 ? kCount * sizeof(TagElement) : 0;
        EXPECT_EQ(TagElement::pooledBytesInUse() - inUse, pooled);
        for (TagElement* element : elements)
            delete element;
        EXPECT_EQ(TagElement::pooledBytesInUse(), inUse);
        if (round == 1) {
            settled = TagElement::pooledBytesReserved();
        } else if (round > 1) {
            EXPECT_LE(TagElement::pooledBytesReserved(), settled + slack) << "round " << round;
        }
    }
}

} // namespace
