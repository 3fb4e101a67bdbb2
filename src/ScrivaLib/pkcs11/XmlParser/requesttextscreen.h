#pragma once

#include <QString>

// A linear look at the raw request text before libxml2 or the stream reader see it, refusing what
// would make the two read different documents or spend more than linear time on it.
//
// It refuses any document type declaration: entities declared there are expanded differently by the
// two parsers (the stream reader gives up on long ones), and an external subset is a second document.
//
// It refuses more than maxAttributes attributes, namespace declarations included, in the whole text.
// Both parsers compare each attribute of an element with every other one, and look a prefix up by
// scanning every declaration in scope, so many attributes cost quadratic time. The request format
// has no attributes apart from namespace declarations (one or two in any real request) and whatever
// the free GetSlots content holds, which means nothing to this host; 64 leaves ample room while
// keeping those scans to a small constant per element.
//
// The screen deliberately ignores context (comments, CDATA sections, processing instructions):
// libxml2 resumes parsing after an error inside such a section, so text that only looks hidden
// there can still reach it. What looks like a declaration or an attribute anywhere is counted.
class RequestTextScreen
{
public:
    static constexpr int maxAttributes = 64;

    // True when the text may go on to validation; otherwise logs why not.
    static bool admits(const QString& xml);

private:
    // The attributes of a start tag that may begin at `open` (a '<'): each '=' outside quoted
    // values before the tag's '>' or the next '<', where either parser stops reading attributes.
    // Leaves `open` on the character that ended the tag.
    static int attributesAt(const QString& xml, qsizetype& open);
};
