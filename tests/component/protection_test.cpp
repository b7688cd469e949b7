// The meta of encrypted buffers, what a decrypter of the host is asked for, and the names of
// encrypted caps.

#include "gst_ptr.h"
#include "support/log_capture.h"
#include "support/media_host.h"
#include "uva_gstcontentprotection.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using support::LogCapture;
using support::TestDrm;
using Buffer = GstPtr<GstBuffer>;
using Bytes = std::vector<guint8>;
using Lines = std::vector<std::string>;
using Ranges = std::vector<GstUvaSubsample>;

GArray* arrayOf(const Ranges& ranges) {
    GArray* array = g_array_new(FALSE, FALSE, sizeof(GstUvaSubsample));
    return g_array_append_vals(array, ranges.data(), static_cast<guint>(ranges.size()));
}

class ProtectionTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        gst_init(nullptr, nullptr);
        InitializeLogging();
        category = _gst_debug_get_category("gstuvacontentprotectionhandler");
        ASSERT_NE(category, nullptr);
    }

    Buffer encrypted(const std::string& key, const Ranges& ranges,
                     UVADRMBackend* backend = nullptr) {
        const Bytes id(key.begin(), key.end());
        const Bytes iv = {1, 2, 3, 4, 5, 6, 7, 8};
        auto buffer = Buffer::adopt(gst_buffer_new_allocate(nullptr, 100, nullptr));
        gst_buffer_memset(buffer.get(), 0, 0x55, 100);
        gst_buffer_add_content_protection_meta(buffer.get(), "org.test", id.data(), id.size(),
                                               iv.data(), iv.size(), arrayOf(ranges), TRUE,
                                               backend != nullptr ? backend : &drm);
        return buffer;
    }
    static GstUvaContentProtectionMeta* metaOf(const Buffer& buffer) {
        return gst_buffer_get_content_protection_meta(buffer.get());
    }
    /// Decrypts a sample of 100 bytes as the ranges say and returns what became of it.
    gboolean decrypt(const Ranges& ranges, Bytes& sample) {
        const auto buffer = encrypted("k", ranges);
        return gst_uva_decrypter_context_update(context, metaOf(buffer), 7) &&
               gst_uva_decrypter_context_software_decrypt_debug(
                   context, sample.data(), sample.size(), metaOf(buffer), 0, 0, 0);
    }
    Lines takeJournal() { return drm.takeJournal(); }

    ~ProtectionTest() override { gst_uva_decrypter_context_free(context); }

    static GstDebugCategory* category;
    TestDrm drm;
    GstUvaDecrypterContext* context = gst_uva_decrypter_context_new();
};
GstDebugCategory* ProtectionTest::category = nullptr;
using ProtectionDeathTest = ProtectionTest;

TEST_F(ProtectionDeathTest, OwnMistakesAreAsserted) {
    const auto buffer = encrypted("k", {});
    EXPECT_DEATH(gst_buffer_add_content_protection_meta(buffer.get(), "", nullptr, 0, nullptr, 0,
                                                        nullptr, FALSE, nullptr),
                 "gst_buffer_get_meta\\(buffer, gst_cp_meta_api_get_type\\(\\)\\) == nullptr");
    TestDrm another;
    const auto foreign = encrypted("l", {}, &another);
    ASSERT_TRUE(gst_uva_decrypter_context_update(context, metaOf(buffer), 7));
    EXPECT_DEATH(gst_uva_decrypter_context_update(context, metaOf(foreign), 7),
                 "ctx->drm_backend == nullptr \\|\\| ctx->drm_backend == cpmeta->drm_backend");
}

TEST_F(ProtectionTest, AWholeCopyHasAMetaOfItsOwn) {
    auto original = encrypted("key", {{10, 20}, {50, 50}});
    const auto copy = Buffer::adopt(gst_buffer_copy_deep(original.get()));
    const auto* meta = metaOf(copy);
    ASSERT_NE(meta, nullptr);
    EXPECT_NE(meta->subsamples, metaOf(original)->subsamples);
    g_array_index(metaOf(original)->subsamples, GstUvaSubsample, 1).length = 1;
    original.reset();

    EXPECT_STREQ(meta->key_system, "org.test");
    EXPECT_EQ(Bytes(meta->key_id, meta->key_id + meta->key_id_size), (Bytes{'k', 'e', 'y'}));
    EXPECT_EQ(Bytes(meta->iv, meta->iv + meta->iv_size), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    ASSERT_EQ(meta->subsamples->len, 2U);
    EXPECT_EQ(g_array_index(meta->subsamples, GstUvaSubsample, 1).offset, 50U);
    EXPECT_EQ(g_array_index(meta->subsamples, GstUvaSubsample, 1).length, 50U);
    EXPECT_EQ(meta->flag, TRUE);
    EXPECT_EQ(meta->drm_backend, &drm);
    EXPECT_EQ(meta->valid, 1U);

    gst_buffer_remove_content_protection_meta(copy.get());
    EXPECT_EQ(metaOf(copy), nullptr);
    gst_buffer_remove_content_protection_meta(copy.get());
    gst_buffer_add_content_protection_meta(copy.get(), nullptr, nullptr, 9, nullptr, 9, nullptr,
                                           FALSE, nullptr);
    const auto empty = Buffer::adopt(gst_buffer_copy(copy.get()));
    ASSERT_NE(metaOf(empty), nullptr);
    EXPECT_EQ(metaOf(empty)->key_id_size + metaOf(empty)->iv_size, 0U);
}

TEST_F(ProtectionTest, OtherTransformsDropTheMeta) {
    LogCapture log(category);
    const auto original = encrypted("k", {{0, 100}});
    const auto part =
        Buffer::adopt(gst_buffer_copy_region(original.get(), GST_BUFFER_COPY_ALL, 10, 20));
    EXPECT_EQ(metaOf(part), nullptr);
    EXPECT_TRUE(log.has("WARN Partial GstUvaContentProtectionMeta copies are not supported!"));

    const auto scaled = Buffer::adopt(gst_buffer_new());
    auto* meta = metaOf(original);
    EXPECT_FALSE(meta->meta.info->transform_func(scaled.get(), &meta->meta, original.get(),
                                                 g_quark_from_string("scale"), nullptr));
    EXPECT_EQ(metaOf(scaled), nullptr);
    EXPECT_TRUE(log.has("WARN Unsupported GstUvaContentProtectionMeta transform: scale"));
}

TEST_F(ProtectionTest, AMergedBufferKeepsTheFirstMeta) {
    LogCapture log(category);
    const auto merged = encrypted("first", {{1, 2}});
    for (const auto* key : {"second", "third"})
        gst_buffer_copy_into(merged.get(), encrypted(key, {{3, 4}}).get(), GST_BUFFER_COPY_ALL, 0,
                             static_cast<gsize>(-1));
    EXPECT_EQ(gst_buffer_get_size(merged.get()), 300U);
    EXPECT_EQ(std::string(metaOf(merged)->key_id, metaOf(merged)->key_id + 5), "first");
    EXPECT_EQ(log.lines(),
              Lines(2, "DEBUG Merged buffers: the first GstUvaContentProtectionMeta stays"));
}

TEST_F(ProtectionTest, WhatTheHostThrowsIsAFailure) {
    drm.hasKeySlots = true;
    for (const bool whole : {false, true}) {
        for (const auto answer : {TestDrm::Throws, TestDrm::ThrowsANumber}) {
            SCOPED_TRACE(answer);
            const decltype(drm.answers) throws = {{TestDrm::Create, answer},
                                                  {TestDrm::Release, answer},
                                                  {TestDrm::GetInterface, answer},
                                                  {TestDrm::GetSlot, answer},
                                                  {TestDrm::Decrypt, answer}};
            LogCapture log(category);
            Bytes sample(100, 0x55);
            drm.hasFullSample = whole;
            drm.answers = throws;
            EXPECT_FALSE(decrypt({{0, 10}}, sample)) << "no decrypter";
            drm.answers.clear();
            EXPECT_TRUE(decrypt({{0, 10}}, sample));
            drm.answers = throws;
            EXPECT_FALSE(decrypt({{0, 10}}, sample));
            guint32 slot = 5;
            EXPECT_FALSE(gst_uva_decrypter_context_get_key_slot(context, &slot));
            gst_uva_decrypter_context_reset(context);
            drm.answers.clear();
            auto lines = log.lines();
            lines.erase(std::remove_if(lines.begin(), lines.end(),
                                       [](auto& line) { return line.rfind("ERROR", 0) != 0; }),
                        lines.end());
            EXPECT_EQ(lines, (Lines{"ERROR Failed to decrypt content!",
                                    "ERROR Failed to obtain key slot value"}));
        }
    }
}

TEST_F(ProtectionTest, OneDecrypterAKey) {
    const auto update = [this](const std::string& key) {
        return gst_uva_decrypter_context_update(context, metaOf(encrypted(key, {})), 7);
    };
    EXPECT_TRUE(update("a"));
    EXPECT_TRUE(update("a"));
    EXPECT_EQ(takeJournal(), (Lines{"create a 7"}));
    EXPECT_TRUE(update("ab"));
    EXPECT_EQ(takeJournal(), (Lines{"release", "create ab 7"}));

    drm.answers[TestDrm::Create] = TestDrm::Refuses;
    LogCapture log(category);
    EXPECT_FALSE(update("\x1f\xa0z"));
    EXPECT_TRUE(log.has("WARN no decrypter for key id 1fa07a"));
    EXPECT_EQ(takeJournal(), (Lines{"release", "create \x1f\xa0z 7"}));
    EXPECT_TRUE((drm.answers.clear(), update("ab")));
    drm.answers[TestDrm::Create] = TestDrm::Refuses;
    takeJournal();
    EXPECT_FALSE(update("b"));
    EXPECT_EQ(takeJournal(), (Lines{"release", "create b 7"}));
    EXPECT_FALSE(update("ab")) << "that decrypter is gone";
    EXPECT_EQ(takeJournal(), (Lines{"create ab 7"}));
    drm.answers[TestDrm::Create] = TestDrm::MakesNone;
    EXPECT_FALSE(update("ab"));
    EXPECT_EQ(takeJournal(), (Lines{"create ab 7"}));
    EXPECT_FALSE(update("")) << "clear";
    EXPECT_EQ(takeJournal(), Lines{});

    drm.answers.clear();
    EXPECT_TRUE(update("c"));
    gst_uva_decrypter_context_reset(context);
    gst_uva_decrypter_context_reset(context);
    EXPECT_EQ(takeJournal(), (Lines{"create c 7", "release"}));
    TestDrm another;
    const auto foreign = encrypted("c", {}, &another);
    EXPECT_TRUE(gst_uva_decrypter_context_update(context, metaOf(foreign), ~0ULL));
    gst_uva_decrypter_context_free(std::exchange(context, nullptr));
    EXPECT_EQ(another.takeJournal(), (Lines{"create c 18446744073709551615", "release"}));
    gst_uva_decrypter_context_free(nullptr);
}

TEST_F(ProtectionTest, KeySlotsComeFromTheHost) {
    LogCapture log(category);
    guint32 slot = 5;
    const auto missing =
        "ERROR Failed to obtain " + std::string(UVADRMKeySlotGetter::interfaceName) + " interface.";
    const auto update = [this](const char* key) {
        ASSERT_TRUE(gst_uva_decrypter_context_update(context, metaOf(encrypted(key, {})), 0));
    };
    update("a");
    EXPECT_FALSE(gst_uva_decrypter_context_get_key_slot(context, &slot));
    EXPECT_EQ(log.lines(), Lines{missing});

    drm.hasKeySlots = true;
    drm.answers[TestDrm::GetSlot] = TestDrm::Refuses;
    update("b");
    EXPECT_FALSE(gst_uva_decrypter_context_get_key_slot(context, &slot));
    EXPECT_TRUE(log.has("ERROR Failed to obtain key slot value"));
    EXPECT_EQ(slot, 5U);
    drm.answers.clear();
    EXPECT_TRUE(gst_uva_decrypter_context_get_key_slot(context, &slot));
    EXPECT_EQ(slot, 42U);
    gst_uva_decrypter_context_reset(context);
    EXPECT_FALSE(gst_uva_decrypter_context_get_key_slot(context, &slot)) << "of no decrypter";
}

TEST_F(ProtectionTest, RangesAreDecryptedInPlaceInOrder) {
    const struct {
        Ranges ranges;
        bool succeeds;
        Lines calls;
    } rows[] = {
        {{{16, 84}}, true, {"84 iv 8 first last"}},
        {{{0, 10}, {20, 10}, {90, 10}}, true, {"10 iv 8 first", "10", "10 last"}},
        {{{16, 0}, {20, 10}, {30, 10}}, true, {"10 iv 8", "10 last"}},
        {{{16, 0}, {100, 0}}, true, {}},
        {{}, true, {}},
        {{{0, 10}, {95, 6}}, false, {}},
        {{{0, 10}, {101, 0}}, false, {}},
        {{{0xFFFFFFF0, 0x20}}, false, {}},
        {{{0x20, 0xFFFFFFFF}}, false, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.calls));
        LogCapture log(category);
        Bytes wanted(100, 0x55);
        for (const auto& range : row.succeeds ? row.ranges : Ranges{})
            std::fill_n(wanted.begin() + range.offset, range.length, 0xAA);
        Bytes sample(100, 0x55);
        ASSERT_EQ(decrypt({}, sample), TRUE);
        takeJournal();
        EXPECT_EQ(decrypt(row.ranges, sample), row.succeeds);
        EXPECT_EQ(takeJournal(), row.calls);
        EXPECT_EQ(sample, wanted);
        EXPECT_EQ(log.has("ERROR Failed to decrypt content!"), !row.succeeds);
    }

    LogCapture log(category);
    Bytes sample(100, 0x55);
    drm.answers[TestDrm::Decrypt] = TestDrm::Refuses;
    EXPECT_FALSE(decrypt({{0, 10}, {20, 10}}, sample));
    EXPECT_EQ(takeJournal(), (Lines{"10 iv 8 first"})) << "the first failure ends it";
    EXPECT_EQ(log.lines(), (Lines{"ERROR Failed to decrypt content!"}));
    drm.answers.clear();
    EXPECT_TRUE(gst_uva_decrypter_context_decrypt(context, nullptr, 0, sample.data(), 1,
                                                  sample.data(), 1, GST_UVA_DECRYPT_EXTRA));
    EXPECT_EQ(takeJournal(), (Lines{"1 flag"}));
}

TEST_F(ProtectionTest, AFullSampleInterfaceGetsAllAtOnce) {
    LogCapture log(category);
    drm.hasFullSample = true;
    Bytes sample(100, 0x55);
    EXPECT_TRUE(decrypt({{0, 10}, {16, 0}, {90, 10}}, sample));
    EXPECT_TRUE(decrypt({}, sample));
    EXPECT_EQ(takeJournal(),
              (Lines{"create k 7", "whole of 100 iv 8 0+10 16+0 90+10", "whole of 100 iv 8"}));
    EXPECT_FALSE(decrypt({{0, 10}, {95, 6}}, sample));
    EXPECT_EQ(takeJournal(), Lines{});
    EXPECT_EQ(log.lines(), (Lines{"ERROR Failed to decrypt content!"}));
    drm.answers[TestDrm::Decrypt] = TestDrm::Refuses;
    EXPECT_FALSE(decrypt({{0, 10}}, sample));
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(ProtectionTest, WithoutADecrypterNothingIsDecrypted) {
    Bytes sample(100, 0x55);
    for (const bool whole : {false, true}) {
        drm.hasFullSample = whole;
        ASSERT_TRUE(decrypt({}, sample));
        gst_uva_decrypter_context_reset(context);
        LogCapture log(category);
        const auto buffer = encrypted("k", {{0, 100}});
        EXPECT_FALSE(gst_uva_decrypter_context_software_decrypt(context, sample.data(), 100,
                                                                metaOf(buffer)));
        EXPECT_EQ(log.lines(), (Lines{"ERROR Invalid decrypter context!"}));
    }
    EXPECT_FALSE(gst_uva_decrypter_context_decrypt(nullptr, nullptr, 0, nullptr, 0, nullptr, 0, 0));
    EXPECT_EQ(sample, Bytes(100, 0x55));
}

TEST_F(ProtectionTest, EncryptedCapsAreMarkedByName) {
    const auto transform = [](const std::string& from, GstPadDirection direction) {
        auto* caps = gst_caps_from_string(from.c_str());
        const auto shared = GstPtr<GstCaps>::retain(caps);
        const auto to = GstPtr<GstCaps>::adopt(
            gst_uva_content_protection_handler_transform_caps(caps, direction));
        EXPECT_EQ(GCharPtr(gst_caps_to_string(shared.get())).get(), from) << "left alone";
        return std::string(GCharPtr(gst_caps_to_string(to.get())).get());
    };
    const struct {
        const char *clear, *marked;
    } rows[] = {
        {"video/x-h264", "video/x-h264-uva-cenc"},
        {"audio/mpeg, mpegversion=(int)4", "audio/mpeg-uva-cenc, mpegversion=(int)4"},
        {"EMPTY", "EMPTY"},
        {"ANY", "ANY"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(transform(row.clear, GST_PAD_SRC), row.marked);
        EXPECT_EQ(transform(row.marked, GST_PAD_SRC), row.marked);
        EXPECT_EQ(transform(row.marked, GST_PAD_SINK), row.clear);
        EXPECT_EQ(transform(row.clear, GST_PAD_SINK), row.clear);
    }
    EXPECT_EQ(gst_uva_content_protection_handler_transform_caps(nullptr, GST_PAD_SINK), nullptr);

    for (const auto& [name, clear] : std::vector<std::pair<const char*, const char*>>{
             {"video/x-h264-uva-cenc", "video/x-h264"},
             {"video/x-h264", "video/x-h264"},
             {"video/x-uva-cenc-raw", "video/x-uva-cenc-raw"},
             {"x-uva-cenc", "x"}}) {
        GstStructure* structure = gst_structure_new_empty(name);
        const auto* found = gst_uva_get_name_without_decrypt_suffix(structure);
        gst_structure_free(structure);
        EXPECT_EQ(found, g_intern_string(clear));
    }

    const auto both = GstPtr<GstCaps>::adopt(
        gst_uva_add_decrypt_suffix_to_caps("video/x-h264, width=(int)1; video/x-vp9"));
    EXPECT_STREQ(GCharPtr(gst_caps_to_string(both.get())).get(),
                 "video/x-h264, width=(int)1; video/x-vp9; video/x-h264-uva-cenc, width=(int)1; "
                 "video/x-vp9-uva-cenc");
    EXPECT_EQ(gst_uva_add_decrypt_suffix_to_caps("no, caps ="), nullptr);
    EXPECT_EQ(gst_uva_add_decrypt_suffix_to_caps(nullptr), nullptr);
}

} // namespace
