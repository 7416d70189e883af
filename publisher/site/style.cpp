#include "publisher/site/pages.h"

namespace tarn::publisher::site {

const char* const kStyleSheet = R"(:root {
	--paper: #ffffff;
	--ground: #f4f6f8;
	--ink: #1b2430;
	--soft: #4c5a6b;
	--line: #ccd4dd;
	--link: #1257a8;
	--full: #1f6fb2;
	--diff: #b4520f;
	--good: #0c5f37;
	--good-ground: #dff2e7;
	--bad: #9b1c1c;
	--bad-ground: #fbe4e2;
}
@media (prefers-color-scheme: dark) {
	:root {
		--paper: #171c23;
		--ground: #10141a;
		--ink: #e6ebf1;
		--soft: #aab6c4;
		--line: #3a4554;
		--link: #86bdf7;
		--full: #62a8e8;
		--diff: #f0945a;
		--good: #8fe0b4;
		--good-ground: #12372a;
		--bad: #ffb0a8;
		--bad-ground: #4a1f1d;
	}
}
* { box-sizing: border-box; }
html { color-scheme: light dark; -webkit-text-size-adjust: 100%; }
body {
	margin: 0;
	background: var(--ground);
	color: var(--ink);
	font: 1rem/1.5 system-ui, -apple-system, "Segoe UI", "DejaVu Sans", sans-serif;
	overflow-wrap: anywhere;
}
header { background: var(--paper); border-bottom: 1px solid var(--line); }
nav, main { max-width: 70rem; margin: 0 auto; padding: 0.75rem 1rem; }
nav { display: flex; flex-wrap: wrap; gap: 0.25rem 1.25rem; }
main { padding-bottom: 3rem; }
h1 { font-size: 1.6rem; line-height: 1.25; margin: 0.75rem 0; }
h2 { font-size: 1.2rem; margin: 1.75rem 0 0.5rem; }
h1, h2, td, th, li, dd, code, .notes { unicode-bidi: isolate; }
a { color: var(--link); }
a:focus-visible, .scroll:focus-visible, pre:focus-visible, summary:focus-visible {
	outline: 2px solid var(--link);
	outline-offset: 2px;
}
.skip { position: absolute; left: -100vw; }
.skip:focus { left: 0; background: var(--paper); padding: 0.5rem 1rem; }
.scroll { overflow-x: auto; overflow-wrap: break-word; background: var(--paper); border: 1px solid var(--line); border-radius: 6px; }
table { border-collapse: collapse; width: 100%; font-size: 0.93rem; }
caption { text-align: left; padding: 0.5rem 0.75rem; color: var(--soft); }
th, td { text-align: left; vertical-align: top; padding: 0.35rem 0.75rem; border-top: 1px solid var(--line); }
thead th { color: var(--soft); font-weight: 600; white-space: nowrap; }
tbody th { font-weight: 600; min-width: 8rem; overflow-wrap: anywhere; }
tr[id] th { min-width: 0; overflow-wrap: normal; }
tbody tr:hover, tr:target { background: var(--ground); }
td time { white-space: nowrap; }
.number { text-align: right; white-space: nowrap; font-variant-numeric: tabular-nums; }
.notes { color: var(--soft); }
td.notes, td.state, tr[id] td:nth-last-child(2) { min-width: 9rem; overflow-wrap: anywhere; }
td.rows { min-width: 15rem; overflow-wrap: anywhere; }
.facts { display: flex; flex-wrap: wrap; gap: 0.5rem 2rem; margin: 0.5rem 0 1rem; }
dt { color: var(--soft); font-size: 0.87rem; }
dd { margin: 0; }
code, pre { font-family: ui-monospace, "DejaVu Sans Mono", monospace; font-size: 0.9em; }
pre {
	background: var(--paper);
	border: 1px solid var(--line);
	border-radius: 6px;
	padding: 0.75rem;
	white-space: pre-wrap;
}
td ul { margin: 0; padding-left: 1.1rem; }
td p { margin: 0; }
.kind, .note { color: var(--soft); }
.note { margin: 0.5rem 0 0; font-size: 0.93rem; }
.releases { list-style: none; margin: 0; padding: 0; }
.releases li { display: flex; flex-wrap: wrap; gap: 0 0.75rem; padding: 0.15rem 0; }
.badge {
	display: inline-block;
	padding: 0 0.5rem;
	border: 1px solid var(--line);
	border-radius: 1rem;
	font-size: 0.85rem;
}
.good { color: var(--good); background: var(--good-ground); }
.bad { color: var(--bad); background: var(--bad-ground); }
.warning { color: var(--bad); background: var(--bad-ground); padding: 0.5rem 0.75rem; border-radius: 6px; }
.plots section { display: flex; }
.plots { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 24rem), 1fr)); gap: 1rem; }
figure { flex: 1; min-width: 0; margin: 0; background: var(--paper); border: 1px solid var(--line); border-radius: 6px; padding: 0.75rem; }
figcaption { font-weight: 600; }
svg { display: block; width: 100%; height: auto; margin-top: 0.5rem; overflow: visible; }
svg path { fill: none; stroke-width: 2; stroke-linecap: round; stroke-linejoin: round; }
.axis path { stroke: var(--line); stroke-width: 1; }
.axis text { fill: var(--soft); font-size: 12px; }
g.full path { stroke: var(--full); }
g.diff path { stroke: var(--diff); stroke-dasharray: 5 3; }
g.full circle { fill: var(--full); }
g.diff circle { fill: var(--paper); stroke: var(--diff); stroke-width: 2; }
@media (max-width: 30rem) { .axis text { font-size: 15px; } }
.legend { list-style: none; display: flex; flex-wrap: wrap; gap: 0 1.25rem; margin: 0.25rem 0 0; padding: 0; }
.legend li { font-weight: 400; }
.legend li::before { content: ""; display: inline-block; width: 1.5rem; margin-right: 0.4rem; vertical-align: 0.25em; }
.legend .full::before { border-top: 3px solid var(--full); }
.legend .diff::before { border-top: 3px dashed var(--diff); }
@media print { .skip, header { display: none; } }
)";

} // namespace tarn::publisher::site
