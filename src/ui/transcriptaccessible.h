#pragma once

// Screen-reader access to the transcript, as it is shown rather than as it is written. The
// transcript is a list with one item per message, named by its role and usage line, whose text
// is the message's shown text (no Markdown syntax, links as their text, list markers as drawn,
// only the table cells the grid shows); "Copy Markdown" is the item's action. A built message
// also lists its copy buttons and its blocks: headings, paragraphs and list items with their
// links (described by their targets), code blocks named by their language with one child per
// line, and tables as grids of header and body cells. Messages far from the visible area have no
// bubble; a light stand-in reads the same from the view model. Text is worked out when a reader
// asks, and only its first part for a huge reply. Installed once per process by the transcript.
void installTranscriptAccessibility();
