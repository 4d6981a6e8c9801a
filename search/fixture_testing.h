// SPDX-License-Identifier: Apache-2.0
// What every test of the search handler begins and ends with.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "backend/base/settings.h"
#include "backend/base/supported_attributes.h"
#include "cache/search_cache.h"
#include "search/entries.h"
#include "search/handles.h"
#include "search/search_testing.h"
#include "tests/standin/vex_standin.h"

#include "tests/standin/slapd_standin.h"

namespace searchtest {

// Ends with every handle given back to the agent, and every entry to slapd.
class Fixture : public testing::Test {
  protected:
    Fixture() {
        standin::reset();
        standin::resetSlapd();
        for (const char* name : {"objectclass", "dc", "mail", "sAMAccountName"}) standin::knowAttribute(name);
        back_vex_search_handle = &m_handles;
    }
    ~Fixture() override {
        m_handles.clearAllSearchHandle();
        back_vex_search_handle = nullptr;
        SearchCacheManager::Destroy();
        EntryMaker::forgetRefused();
        if (vexStringSet* names = gSupportedObjectAttrList.exchange(nullptr)) vexFreeStringSet(names);
        gTranslationMap = nullptr;
        gFetchByDnUID = gNetgroupUseRfc2307 = gSearchReportErrors = gCacheEnabled = false;
        EXPECT_THAT(standin::leaks(), testing::IsEmpty());
        EXPECT_THAT(standin::failures(), testing::IsEmpty());
        EXPECT_EQ(standin::liveEntries(), 0);
    }

    void useMap(const std::string& text) {
        m_map = std::make_unique<vorn::Properties>();
        m_map->parse(text, "map");
        gTranslationMap = m_map.get();
    }

    // Switches the cache on, as it is after a first bind.
    void useCache(std::vector<std::string> supported = {"mail", "objectClass", "sAMAccountName"}) {
        gCacheEnabled = true;
        standin::supported(std::move(supported));
        vexSession* session = nullptr;
        vexStringSet* names = nullptr;
        vexSessionOpen(1, 21, &session);
        vexGetObjectSupportedAttributes(session, &names);
        vexSessionClose(session);
        publishSupportedAttributes(vex::UniqueStringSet(names));
        standin::forgetCalls();
    }

    SearchHandleManager m_handles;
    std::unique_ptr<vorn::Properties> m_map;
    Client m_client;
};

}  // namespace searchtest
