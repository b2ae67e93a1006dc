#!/usr/bin/python3
"""report_page_test.py QTRACE REPLAY PLUGIN STREAM...: the report page in a real browser. It opens without an error or a
request, its figures are those of `stats` and `tlb`, it can be used with the keyboard, and tables sort. Exits with 77 (a
skip) when there is no chromium."""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

FLAGS = """--headless=new --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking
--disable-component-update --disable-sync --disable-dev-shm-usage --virtual-time-budget=4000""".split()

# Runs in the page after its own script; what it finds goes into an element of its own.
PROBE = r"""
<script>
const found={};
addEventListener("load",()=>{
 const lum=c=>{const v=c.map(x=>x/255).map(x=>x<=.03928?x/12.92:((x+.055)/1.055)**2.4);return .2126*v[0]+.7152*v[1]+.0722*v[2];};
 const rgb=s=>s.match(/[\d.]+/g).map(Number);
 const paper=e=>{for(;e;e=e.parentElement){const c=rgb(getComputedStyle(e).backgroundColor);if(c.length<4||c[3]>0)return c.slice(0,3);}return [255,255,255];};
 const contrast=e=>{const a=lum(rgb(getComputedStyle(e).color).slice(0,3)),b=lum(paper(e));return (Math.max(a,b)+.05)/(Math.min(a,b)+.05);};
 const texts=[...document.querySelectorAll("p,li,th,td,caption,a,button,figcaption,h1,h2,h3,summary,span,output")];
 found.contrast=Math.min(...texts.map(contrast));
 found.paper=getComputedStyle(document.body).backgroundColor;
 found.drawn=document.documentElement.dataset.drawn;
 found.requests=performance.getEntriesByType("resource").map(r=>r.name);
 found.headings=[...document.querySelectorAll("h1,h2,h3")].map(h=>+h.tagName[1]);
 found.sections=[...document.querySelectorAll("main section h2")].map(h=>h.textContent);
 found.unnamed=[...document.querySelectorAll("button,a,[role=img],[role=group],[role=region],section")].filter(e=>!(e.textContent.trim()||e.getAttribute("aria-label")||e.getAttribute("aria-labelledby"))).length;
 found.headless=[...document.querySelectorAll("table")].filter(t=>!t.caption||[...t.querySelectorAll("th")].some(h=>!h.scope)).length;
 const ids=[...document.querySelectorAll("[id]")].map(e=>e.id);found.repeated_ids=ids.length-new Set(ids).size;
 found.plots=document.querySelectorAll(".plot").length;
 found.empty_plots=[...document.querySelectorAll(".plot")].filter(p=>!p.querySelector("svg,canvas")).length;
 found.unfocusable=[...document.querySelectorAll(".plot")].filter(p=>p.tabIndex!==0).length;
 found.wide=document.documentElement.scrollWidth>innerWidth;
 const table=document.querySelector("#hot table.sort"),head=[...table.tHead.rows[0].cells].findIndex(c=>c.textContent.includes("Address"));
 const column=()=>[...table.tBodies[0].rows].map(r=>r.cells[head].dataset.value);
 table.tHead.rows[0].cells[head].querySelector("button").click();found.down=column();found.sorted=table.tHead.rows[0].cells[head].getAttribute("aria-sort");
 table.tHead.rows[0].cells[head].querySelector("button").click();found.up=column();
 const plot=document.querySelector('.plot[data-plot=timeline]'),said=()=>plot.parentNode.querySelector(".said").textContent;
 const box=plot.firstChild.getBoundingClientRect();
 plot.dispatchEvent(new MouseEvent("mousemove",{clientX:box.left+box.width/2,clientY:box.top+20,bubbles:true}));found.hover=said();
 plot.dispatchEvent(new KeyboardEvent("keydown",{key:"End",bubbles:true}));found.end=said();
 const heat=document.querySelector('.plot[data-plot=fetches]');
 heat.dispatchEvent(new KeyboardEvent("keydown",{key:"ArrowDown",bubbles:true}));found.heat=heat.parentNode.querySelector(".said").textContent;
 const before=plot.innerHTML;document.querySelector('[data-zoom=in]').click();found.zoomed=before!==plot.innerHTML;
 const out=document.createElement("pre");out.id="probe";out.textContent=JSON.stringify(found);document.body.append(out);});
addEventListener("error",e=>{(found.errors??=[]).push(e.message);});
addEventListener("securitypolicyviolation",e=>{(found.violations??=[]).push(e.blockedURI);});
</script>
"""


def run(*command, allowed=(0,)):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    if done.returncode not in allowed:
        sys.exit(f"{' '.join(command)}: {done.returncode}\n{done.stderr}")
    return done


class Browser:
    def __init__(self, program, folder):
        self.program, self.folder = program, folder

    def open(self, page, *flags):
        """The page's document after its scripts, and what the console said."""
        with tempfile.TemporaryDirectory(dir=self.folder) as profile:
            done = run(self.program, *FLAGS, f"--user-data-dir={profile}", "--enable-logging=stderr", *flags, "--dump-dom",
                       "file://" + page)
        return done.stdout, [line for line in done.stderr.splitlines() if "CONSOLE" in line]

    def probe(self, page, *flags):
        with open(page, encoding="utf-8") as file:
            content = file.read()
        probed = page + ".probe.html"
        with open(probed, "w", encoding="utf-8") as file:
            # Before the page's own script, so that its errors are seen.
            file.write(content.replace("<body>", "<body>" + PROBE, 1))
        document, console = self.open(probed, *flags)
        text = re.search(r'<pre id="probe">(.*?)</pre>', document, re.S).group(1)
        found = json.loads(text.replace("&lt;", "<").replace("&gt;", ">").replace("&amp;", "&"))
        return found, console


class Report(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp()
        cls.traces = [cls.trace(stream) for stream in STREAMS]
        cls.browser = Browser(CHROMIUM, cls.folder)
        cls.page = cls.report(cls.traces[0])
        cls.found, cls.console = cls.browser.probe(cls.page)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.folder)

    @classmethod
    def trace(cls, stream):
        base = os.path.join(cls.folder, "a_folder_whose_name_is_wider_than_a_phone_" * 3, os.path.basename(stream).split(".")[0])
        os.makedirs(os.path.dirname(base), exist_ok=True)
        with open(base + ".commands", "w", encoding="utf-8") as file:
            file.write(f'plugin load "{PLUGIN}"\nplugin signal plugin_qtbin.so start "{base}"\nrun 20000\n')
            file.write("plugin signal plugin_qtbin.so pause\nrun 10\nplugin signal plugin_qtbin.so resume\nrun 20000\n")
            file.write("plugin signal plugin_qtbin.so stop\n")
        run(REPLAY, stream, base + ".commands")
        return base

    @classmethod
    def report(cls, *traces):
        page = os.path.join(cls.folder, "-".join(os.path.basename(trace) for trace in traces) + ".html")
        run(QTRACE, "report", "-o", page, *traces, allowed=(0, 3))
        return page

    def data_of(self, page):
        with open(page, encoding="utf-8") as file:
            return json.loads(re.search(r'id="data">(.*?)</script>', file.read(), re.S).group(1))

    def test_opens_without_an_error_or_a_request(self):
        self.assertEqual(self.console, [])
        self.assertNotIn("errors", self.found)
        self.assertNotIn("violations", self.found)
        self.assertEqual(self.found["requests"], [])
        self.assertEqual(self.found["drawn"], "yes")
        self.assertEqual(self.found["empty_plots"], 0)

    def test_forbids_requests_itself(self):
        with open(self.page, encoding="utf-8") as file:
            content = file.read()
        self.assertIn("default-src 'none'", content)
        self.assertNotRegex(content, r'(src|href)="(https?:)?//')

    def test_has_all_sections(self):
        self.assertEqual(len(self.found["sections"]), 8)

    def test_is_accessible(self):
        self.assertGreaterEqual(self.found["contrast"], 4.5)
        for figure in ("unnamed", "headless", "repeated_ids", "unfocusable"):
            self.assertEqual(self.found[figure], 0, figure)
        self.assertEqual(self.found["headings"][0], 1)
        steps = zip(self.found["headings"], self.found["headings"][1:])
        self.assertTrue(all(after - before <= 1 for before, after in steps))

    def test_light_and_dark_differ_and_both_have_contrast(self):
        dark, console = self.browser.probe(self.page, "--blink-settings=preferredColorScheme=0")
        self.assertEqual(console, [])
        self.assertNotEqual(dark["paper"], self.found["paper"])
        self.assertGreaterEqual(dark["contrast"], 4.5)

    def test_fits_a_phone(self):
        phone, _ = self.browser.probe(self.page, "--window-size=500,900")
        self.assertFalse(phone["wide"])

    def test_sorts_addresses_as_exact_numbers(self):
        down = [int(value, 16) for value in self.found["down"]]
        self.assertEqual(down, sorted(down, reverse=True))
        self.assertGreater(max(down), 1 << 53)
        self.assertEqual(self.found["up"], self.found["down"][::-1])
        self.assertEqual(self.found["sorted"], "descending")

    def test_hovering_and_keys_tell_records(self):
        for said in ("hover", "end", "heat"):
            self.assertRegex(self.found[said], r"records [\d,]+ to [\d,]+.*qtrace dump --from \d+ --count \d+", said)
        self.assertTrue(self.found["zoomed"])

    def test_figures_are_those_of_the_other_commands(self):
        for trace in self.traces:
            data = self.data_of(self.report(trace))
            tlbs = [json.loads(line) for line in run(QTRACE, "tlb", "--json", trace).stdout.splitlines()]
            stats = [json.loads(line) for line in run(QTRACE, "stats", "--json", trace).stdout.splitlines()]
            for thread, tlb, stat in zip(data["threads"], tlbs, stats):
                for figure, value in thread["tlb"].items():
                    if figure not in ("per",):
                        self.assertEqual(value, tlb[figure], figure)
                self.assertEqual(thread["records"], stat["instructions"])
                mix = dict(thread["mix"])
                self.assertEqual((mix["loads"], mix["stores"]), (stat["loads"], stat["stores"]))
                self.assertEqual(sum(value for _, value in thread["bias"]), stat["taken"] + stat["not_taken"])
                shown = sum(sum(process["bins"]) for process in thread["processes"])
                self.assertEqual(shown, stat["instructions"])
                self.assertEqual(len(thread["gaps"]), stat["full_headers"] - 1)

    def test_two_traces_are_compared(self):
        page = self.report(*self.traces[:2])
        with open(page, encoding="utf-8") as file:
            self.assertIn("What differs between the two traces", file.read())
        self.assertLess(os.path.getsize(page), 1 << 20)

    def test_a_damaged_trace_is_called_damaged(self):
        name = self.traces[0] + "0"
        with open(name, "rb") as file:
            content = bytearray(file.read())
        content[len(content) // 2] ^= 0x55
        broken = os.path.join(self.folder, "broken")
        with open(broken, "wb") as file:
            file.write(content)
        with open(self.report(broken), encoding="utf-8") as file:
            self.assertIn("damaged: 1 place cannot be read", file.read())


if __name__ == "__main__":
    QTRACE, REPLAY, PLUGIN, *STREAMS = sys.argv[1:]
    CHROMIUM = shutil.which("chromium")
    if CHROMIUM is None:
        print("skipped: there is no chromium (Debian package `chromium`)")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
