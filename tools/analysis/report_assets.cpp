#include "report_page.h"

namespace qtrace_tool
{

const char *const REPORT_STYLE = R"css(
:root{color-scheme:light dark;--paper:#fbfaf7;--card:#fff;--ink:#1d2530;--soft:#525c69;--line:#d9d6ce;--accent:#0a5a8f;
--good:#00664c;--bad:#a33b00;--grid:#e6e3db;--c0:#0072b2;--c1:#e69f00;--c2:#009e73;--c3:#cc79a7;--c4:#56b4e9;--c5:#d55e00;
--c6:#8a7f00;--c7:#5d5d5d;--focus:#d55e00}
@media (prefers-color-scheme:dark){:root{--paper:#12161b;--card:#1a2027;--ink:#e8e6e1;--soft:#a9b2bd;--line:#343d48;
--accent:#7cc4f4;--good:#4fd0a6;--bad:#ff9d5c;--grid:#2b333d;--c0:#4fa8e0;--c1:#f0b43c;--c2:#2fc497;--c3:#dd94bd;
--c4:#8fd0f5;--c5:#ff8b45;--c6:#d9cf45;--c7:#a5a5a5;--focus:#f0b43c}}
*{box-sizing:border-box}
body{margin:0;background:var(--paper);color:var(--ink);font:16px/1.55 system-ui,"Segoe UI",Roboto,"DejaVu Sans",sans-serif;
overflow-wrap:break-word}
header.top{padding:2.2rem 1.2rem 1rem;max-width:72rem;margin:auto}
header.top p{margin:.2rem 0;color:var(--soft)}
h1{font-size:clamp(1.6rem,4vw,2.3rem);line-height:1.2;margin:0 0 .3rem;letter-spacing:-.01em;overflow-wrap:anywhere}
h2{font-size:1.35rem;margin:0 0 .6rem;line-height:1.25}
h3{font-size:1.05rem;margin:1.4rem 0 .4rem}
main{max-width:72rem;margin:auto;padding:0 1.2rem 3rem}
section.part{background:var(--card);border:1px solid var(--line);border-radius:12px;padding:1.3rem 1.4rem;margin:0 0 1.2rem}
nav.parts{position:sticky;top:0;z-index:2;background:var(--paper);border-bottom:1px solid var(--line)}
nav.parts ul{display:flex;gap:.2rem 1.1rem;list-style:none;margin:0 auto;padding:.6rem 1.2rem;max-width:72rem;overflow-x:auto;
white-space:nowrap}
a{color:var(--accent);text-underline-offset:.18em}
:focus-visible{outline:3px solid var(--focus);outline-offset:2px;border-radius:3px}
.lead{font-size:1.06rem}
ul.found{padding-left:1.2rem;margin:.4rem 0}
ul.found li{margin:.35rem 0}
.good{color:var(--good);font-weight:600}.bad{color:var(--bad);font-weight:600}
.note{color:var(--soft);font-size:.9rem;max-width:62rem}
.cards{display:grid;grid-template-columns:repeat(auto-fit,minmax(9.5rem,1fr));gap:.7rem;margin:1rem 0}
.cards div{border:1px solid var(--line);border-radius:10px;padding:.7rem .9rem}
.cards b{display:block;font-size:1.45rem;line-height:1.2;font-variant-numeric:tabular-nums}
.cards span{color:var(--soft);font-size:.85rem}
figure{margin:1rem 0}
figcaption{color:var(--soft);font-size:.9rem;margin-bottom:.35rem}
.plot{position:relative;overflow-x:auto}
.plot svg,.plot canvas{display:block;max-width:100%;border-radius:4px}
.plot text{fill:var(--soft);font:12px system-ui,"DejaVu Sans",sans-serif}
.plot .grid{stroke:var(--grid)}.plot .axis{stroke:var(--soft)}
.legend{display:flex;flex-wrap:wrap;gap:.2rem 1rem;font-size:.85rem;color:var(--soft);padding:0;margin:.3rem 0;list-style:none}
.legend i{display:inline-block;width:.85em;height:.85em;border-radius:3px;margin-right:.4em;vertical-align:-.08em}
.said{min-height:1.5em;font:13px/1.5 ui-monospace,"DejaVu Sans Mono",monospace;color:var(--ink);overflow-wrap:anywhere}
.tools{display:flex;gap:.4rem;flex-wrap:wrap;align-items:center;margin:.3rem 0}
button{font:inherit;color:var(--ink);background:var(--card);border:1px solid var(--line);border-radius:8px;padding:.25rem .7rem;
cursor:pointer}
button:hover{border-color:var(--accent)}
.scroll{overflow-x:auto;margin-top:1rem}
table{border-collapse:collapse;width:100%;font-size:.92rem;font-variant-numeric:tabular-nums}
caption{text-align:left;color:var(--soft);padding:.3rem 0;font-size:.9rem}
th,td{text-align:right;padding:.28rem .6rem;border-bottom:1px solid var(--line);white-space:nowrap}
th:first-child,td:first-child{text-align:left;padding-left:0}
th button{border:0;background:none;padding:0;font-weight:600;color:inherit}
th[aria-sort] button::after{content:" \2195";color:var(--soft)}
th[aria-sort=ascending] button::after{content:" \2191"}th[aria-sort=descending] button::after{content:" \2193"}
code,td.code{font:13px/1.5 ui-monospace,"DejaVu Sans Mono",monospace}
td.code,th.shown{text-align:left}
details{margin:.5rem 0}summary{cursor:pointer;color:var(--accent)}
.skip{position:absolute;left:-999px}.skip:focus{left:1rem;top:.5rem;background:var(--card);padding:.4rem .8rem;z-index:3}
@media (max-width:40rem){main{padding:0 .6rem 2rem}section.part{padding:1rem .9rem}.cards b{font-size:1.2rem}}
@media print{nav.parts,.tools,.skip{display:none}body{background:#fff;color:#000}section.part{border:0;padding:0;break-inside:auto}
figure,tr{break-inside:avoid}details>*{display:block}}
)css";

const char *const REPORT_SCRIPT = R"js(
"use strict";
const data=JSON.parse(document.getElementById("data").textContent);
const css=name=>getComputedStyle(document.documentElement).getPropertyValue(name).trim();
const COLOURS=["--c0","--c1","--c2","--c3","--c4","--c5","--c6","--c7"];
const colour=i=>css(COLOURS[i%COLOURS.length]);
const SVG="http://www.w3.org/2000/svg";
function node(name,attributes,text){const n=document.createElementNS(SVG,name);
 for(const [k,v] of Object.entries(attributes||{}))n.setAttribute(k,v);
 if(text!==undefined)n.textContent=text;return n;}
const group=n=>n.toLocaleString("en-US");
function short(n){for(const [u,s] of [[1e9,"G"],[1e6,"M"],[1e3,"k"]])if(n>=u)return +(n/u).toPrecision(3)+s;return String(+n.toPrecision(3));}
const hex=n=>"0x"+n.toString(16);
const pad=n=>"0x"+n.toString(16).padStart(16,"0");
const windows={from:0,to:data.bins};
const drawers=[];
function redraw(){for(const draw of drawers)draw();}
function widthOf(host){return Math.max(300,Math.min(1060,host.clientWidth||600));}
function ticks(from,to,count){const raw=(to-from)/count||1,p=10**Math.floor(Math.log10(raw));
 const step=[1,2,5,10].map(m=>m*p).find(s=>s>=raw);const list=[];
 for(let t=Math.ceil(from/step)*step;t<=to+step*1e-9;t+=step)list.push(t);return list;}
function say(host,text){const out=host.parentNode.querySelector(".said");if(out)out.textContent=text;}
function range(thread,bin,count){const first=thread.first+bin*thread.bin_records;
 return [first,Math.min(thread.end,first+(count||1)*thread.bin_records)];}
function dump(thread,from,count){return `qtrace dump --from ${from} --count ${Math.max(1,count)} ${thread.name}`;}
// Time axis under a picture of `w` by `h` whose plot starts at x.
function timeAxis(svg,thread,x,w,y){const [a]=range(thread,windows.from),[,b]=range(thread,windows.to-1);
 for(const t of ticks(a,b,w<500?4:8)){const px=x+(t-a)/(b-a||1)*w;
  svg.append(node("line",{x1:px,x2:px,y1:y,y2:y+5,class:"axis"}),node("text",{x:px,y:y+18,"text-anchor":px>x+w-16?"end":"middle"},short(t)));}
 svg.append(node("text",{x:x+w,y:y+34,"text-anchor":"end"},"record number"));}
function legend(host,names){const list=host.parentNode.querySelector(".legend");list.textContent="";
 names.forEach((name,i)=>{const li=document.createElement("li"),box=document.createElement("i");
  box.style.background=`var(${COLOURS[i%COLOURS.length]})`;li.append(box,name);list.append(li);});}
function timeKeys(host,thread,describe){let cursor=0;host.tabIndex=0;
 const show=()=>{cursor=Math.max(windows.from,Math.min(windows.to-1,cursor));say(host,describe(cursor));};
 host.addEventListener("keydown",e=>{const d={ArrowLeft:-1,ArrowRight:1,Home:-1e9,End:1e9}[e.key];
  if(d){cursor+=d;show();e.preventDefault();}else if(e.key==="+"||e.key==="=")zoom(.5);else if(e.key==="-")zoom(2);});
 return {show:bin=>{cursor=bin;show();},get:()=>cursor};}
function zoom(factor,at){const size=windows.to-windows.from,next=Math.max(8,Math.min(data.bins,Math.round(size*factor)));
 const mid=at===undefined?(windows.from+windows.to)/2:at;
 windows.from=Math.max(0,Math.min(data.bins-next,Math.round(mid-next/2)));windows.to=windows.from+next;redraw();}
function pan(part){const size=windows.to-windows.from,d=Math.round(size*part)||Math.sign(part);
 windows.from=Math.max(0,Math.min(data.bins-size,windows.from+d));windows.to=windows.from+size;redraw();}
function pointer(host,left,right,bin){
 const at=e=>{const box=host.firstChild.getBoundingClientRect(),w=box.width-left-right;
  return [Math.max(windows.from,Math.min(windows.to-1,windows.from+Math.floor((e.clientX-box.left-left)/w*(windows.to-windows.from)))),e.clientY-box.top];};
 host.addEventListener("mousemove",e=>bin(...at(e),false));host.addEventListener("click",e=>bin(...at(e),true));}
function timeline(host,thread){const L=8,H=90;
 legend(host,thread.processes.map(p=>p.name));
 const describe=b=>{const [a,z]=range(thread,b);const parts=thread.processes.filter(p=>p.bins[b]).map(p=>`${p.name}: ${group(p.bins[b])}`);
  return `records ${group(a)} to ${group(z-1)}: ${parts.join(", ")||"nothing"}  ·  ${dump(thread,a,z-a)}`;};
 const keys=timeKeys(host,thread,describe);
 drawers.push(()=>{const W=widthOf(host),w=W-2*L,n=windows.to-windows.from;host.textContent="";
  const svg=node("svg",{width:W,height:H+40,role:"img","aria-label":"which process ran, over record numbers"});
  for(let b=windows.from;b<windows.to;b++){const sum=thread.processes.reduce((s,p)=>s+p.bins[b],0)||1;let y=6;
   const full=Math.min(1,sum/thread.bin_records)*(H-12);
   thread.processes.forEach((p,i)=>{if(!p.bins[b])return;const h=full*p.bins[b]/sum;
    svg.append(node("rect",{x:L+(b-windows.from)*w/n,width:w/n+.3,y:y+(H-12-full),height:h,fill:colour(i)}));y+=h;});}
  const [a]=range(thread,windows.from),[,z]=range(thread,windows.to-1);
  for(const gap of thread.gaps){if(gap.record<a||gap.record>z)continue;const x=L+(gap.record-a)/(z-a)*w;
   svg.append(node("line",{x1:x,x2:x,y1:0,y2:H,stroke:css("--ink"),"stroke-width":2,"stroke-dasharray":"4 2"}));}
  timeAxis(svg,thread,L,w,H);host.append(svg);});
 pointer(host,L,L,b=>keys.show(b));}
// Colours from dark blue over grey to yellow, which all kinds of colour vision tell apart. A dark page takes lighter blues.
const DARK=matchMedia("(prefers-color-scheme: dark)");
const DARK_SCALE=[[66,112,186],[92,122,170],[118,132,152],[140,139,132],[170,161,120],[213,195,100],[254,232,56]];
const LIGHT_SCALE=[[0,34,78],[40,64,108],[87,92,109],[124,123,120],[166,157,117],[211,193,100],[254,232,56]];
function heatColour(v){const scale=DARK.matches?DARK_SCALE:LIGHT_SCALE,x=Math.min(.9999,v)*(scale.length-1),i=Math.floor(x),f=x-i;
 return scale[i].map((c,k)=>Math.round(c+(scale[i+1][k]-c)*f));}
function levels(text){return Uint8Array.from(text,c=>c.charCodeAt(0)-48);}
function heat(host,thread,map){const L=widthOf(host)<560?84:150,R=8,row=Math.max(4,Math.min(14,Math.floor(420/Math.max(1,map.rows.length))));
 const rows=map.rows.map(r=>({...r,first:BigInt(r.first),levels:levels(r.bins)})).reverse();
 let gaps=0;for(let i=1;i<rows.length;i++)if(rows[i-1].first-rows[i].first!==1n<<BigInt(map.bits)){rows[i].fold=true;gaps++;}
 const FOLD=7,H=rows.length*row+gaps*FOLD;let y=0;
 for(const r of rows){if(r.fold)y+=FOLD;r.y=y;y+=row;}
 let chosen=0;
 const describe=b=>{const r=rows[chosen],[a,z]=range(thread,b),last=r.first+(1n<<BigInt(map.bits))-1n;
  const l=r.levels[b],about=l?`about ${group(Math.round(2**((l-1)/2)))}`:"no";
  return `${pad(r.first)} to ${pad(last)}${r.name?" ("+r.name+")":""}, records ${group(a)} to ${group(z-1)}: ${about} ${map.what}  ·  ${dump(thread,a,z-a)}${map.pc?` --pc ${hex(r.first)}-${hex(last)}`:""}`;};
 const keys=timeKeys(host,thread,describe);
 host.addEventListener("keydown",e=>{const d={ArrowUp:-1,ArrowDown:1}[e.key];if(!d)return;
  chosen=Math.max(0,Math.min(rows.length-1,chosen+d));keys.show(keys.get());e.preventDefault();});
 drawers.push(()=>{const W=widthOf(host),w=W-L-R,n=windows.to-windows.from;host.textContent="";
  const top=rows.reduce((m,r)=>r.levels.reduce((a,b)=>Math.max(a,b),m),1);
  const box=document.createElement("div");box.style.position="relative";
  const canvas=document.createElement("canvas"),small=document.createElement("canvas");
  small.width=n;small.height=H;const pen=small.getContext("2d"),image=pen.createImageData(n,H);
  for(const r of rows)for(let b=0;b<n;b++){const l=r.levels[b+windows.from];if(!l)continue;const c=heatColour(l/top);
   for(let k=0;k<row-(row>5?1:0);k++)image.data.set([...c,255],4*((r.y+k)*n+b));}
  pen.putImageData(image,0,0);const scale=window.devicePixelRatio||1;
  canvas.width=w*scale;canvas.height=H*scale;canvas.style.cssText=`width:${w}px;height:${H}px;margin-left:${L}px;background:${css("--grid")}`;
  canvas.setAttribute("role","img");canvas.setAttribute("aria-label",`${map.what} by address and record number`);
  const c2=canvas.getContext("2d");c2.imageSmoothingEnabled=false;c2.drawImage(small,0,0,w*scale,H*scale);
  c2.fillStyle=css("--card");for(const r of rows)if(r.fold)c2.fillRect(0,(r.y-FOLD+1)*scale,w*scale,(FOLD-2)*scale);
  const svg=node("svg",{width:W,height:H+40,style:"position:absolute;top:0;left:0"});let last=-99;
  for(const r of rows)if(r.y-last>=13){last=r.y;svg.append(node("text",{x:L-6,y:r.y+row/2+4,"text-anchor":"end"},L<100?"…"+(r.first&0xffffffffn).toString(16).padStart(8,"0"):r.first.toString(16).padStart(16,"0")));}
  timeAxis(svg,thread,L,w,H+2);box.style.height=H+40+"px";box.append(canvas,svg);host.append(box);});
 pointer(host,L,R,(b,py,click)=>{const i=rows.findIndex(r=>py>=r.y&&py<r.y+row);if(i>=0){chosen=i;keys.show(b);}});}
// Lines: series of [x,y]; log2 x when asked.
function lines(host,label,series,options){legend(host,series.map(s=>s.name));
 const L=56,R=14,T=8,H=220;
 const draw=()=>{const W=widthOf(host),w=W-L-R,h=H-T;host.textContent="";
  const svg=node("svg",{width:W,height:H+42,role:"img","aria-label":label});
  const all=series.flatMap(s=>s.points.filter(p=>!options.time||(p[0]>=windows.from&&p[0]<windows.to)));
  const fx=options.log?Math.log2:v=>v,xs=all.map(p=>fx(p[0]));
  const x0=options.time?windows.from:Math.min(...xs),x1=options.time?windows.to:Math.max(...xs),y1=Math.max(1e-9,...all.map(p=>p[1]));
  const low=options.log?Math.floor(Math.log10(Math.max(1e-6,Math.min(...all.map(p=>p[1]).filter(v=>v>0),y1)))):0,high=Math.max(low+1,Math.ceil(Math.log10(y1)));
  const fy=v=>options.log?(Math.log10(Math.max(v,10**low))-low)/(high-low):v/y1;
  const px=v=>L+(fx(v)-x0)/(x1-x0||1)*w,py=v=>T+h-fy(v)*h;
  for(const t of options.log?Array.from({length:high-low+1},(_,i)=>10**(low+i)):ticks(0,y1,4))svg.append(node("line",{x1:L,x2:L+w,y1:py(t),y2:py(t),class:"grid"}),node("text",{x:L-6,y:py(t)+4,"text-anchor":"end"},short(t)));
  if(options.time)timeAxis(svg,options.time,L,w,H);else{
   for(let e=0;2**e<=2**x1;e+=w<500?2:1)if(e>=x0)svg.append(node("text",{x:px(2**e),y:H+18,"text-anchor":"middle"},short(2**e)));
   svg.append(node("text",{x:L+w,y:H+34,"text-anchor":"end"},options.x));}
  series.forEach((s,i)=>{const shown=s.points.filter(p=>!options.time||(p[0]>=windows.from&&p[0]<windows.to));
   svg.append(node("polyline",{points:shown.map(p=>px(p[0])+","+py(p[1])).join(" "),fill:"none",stroke:colour(i),"stroke-width":2.2,
    "stroke-dasharray":["","7 3","2 3","9 3 2 3"][i%4]}));});
  host.append(svg);};
 drawers.push(draw);
 const describe=x=>series.map(s=>{const p=s.points.reduce((a,b)=>Math.abs(fxOf(b[0])-fxOf(x))<Math.abs(fxOf(a[0])-fxOf(x))?b:a);
  return `${s.name}: ${+p[1].toPrecision(5)}${options.log?" at "+group(p[0]):""}`;}).join(", ");
 const fxOf=v=>options.log?Math.log2(v):v;
 if(options.time){const keys=timeKeys(host,options.time,b=>{const [a,z]=range(options.time,b);return `records ${group(a)} to ${group(z-1)}: ${describe(b)}`;});
  pointer(host,L,R,b=>keys.show(b));return;}
 const xs=[...new Set(series.flatMap(s=>s.points.map(p=>p[0])))].sort((a,b)=>a-b);let at=0;host.tabIndex=0;
 host.addEventListener("keydown",e=>{const d={ArrowLeft:-1,ArrowRight:1}[e.key];if(!d)return;at=Math.max(0,Math.min(xs.length-1,at+d));say(host,describe(xs[at]));e.preventDefault();});
 host.addEventListener("mousemove",e=>{const box=host.firstChild.getBoundingClientRect();const f=(e.clientX-box.left-L)/(box.width-L-R);
  const a=fxOf(xs[0]),b=fxOf(xs.at(-1));say(host,describe(options.log?2**(a+f*(b-a)):a+f*(b-a)));});}
function bars(host,label,items){host.tabIndex=0;drawers.push(()=>{const W=widthOf(host),L=Math.min(190,W*.38),w=W-L-120,row=24;host.textContent="";
 const svg=node("svg",{width:W,height:items.length*row+4,role:"img","aria-label":label});const top=Math.max(1,...items.map(i=>i[1]));
 const total=items.reduce((s,i)=>s+i[1],0)||1;
 items.forEach(([name,value],i)=>{svg.append(node("text",{x:L-8,y:i*row+16,"text-anchor":"end"},name),
  node("rect",{x:L,y:i*row+4,width:Math.max(value?1:0,value/top*w),height:row-8,rx:3,fill:colour(0)}),
  node("text",{x:L+value/top*w+6,y:i*row+16},short(value)+" ("+(100*value/total).toFixed(1)+" %)"));});host.append(svg);});}
function sortable(table){const body=table.tBodies[0];[...table.tHead.rows[0].cells].forEach((th,column)=>{
 if(!th.hasAttribute("data-sort"))return;const button=document.createElement("button");button.type="button";button.append(...th.childNodes);
 th.append(button);th.setAttribute("aria-sort","none");
 button.addEventListener("click",()=>{const down=th.getAttribute("aria-sort")!=="descending";
  for(const other of th.parentNode.cells)if(other.hasAttribute("aria-sort"))other.setAttribute("aria-sort","none");
  th.setAttribute("aria-sort",down?"descending":"ascending");
  const key=row=>{const cell=row.cells[column],v=cell.dataset.value??cell.textContent;return v;};
  const compare=(a,b)=>/^0x[0-9a-f]+$/.test(a)&&/^0x[0-9a-f]+$/.test(b)?(BigInt(a)<BigInt(b)?-1:BigInt(a)>BigInt(b)?1:0):
   !isNaN(a)&&!isNaN(b)&&a!==""&&b!==""?a-b:a.localeCompare(b);
  [...body.rows].map(row=>[key(row),row]).sort((a,b)=>compare(a[0],b[0])*(down?-1:1)).forEach(([,row])=>body.append(row));});});}
document.querySelectorAll("table.sort").forEach(sortable);
document.querySelectorAll("[data-zoom]").forEach(b=>b.addEventListener("click",()=>{const z=b.dataset.zoom;
 if(z==="in")zoom(.5);else if(z==="out")zoom(2);else if(z==="left")pan(-.25);else if(z==="right")pan(.25);else{windows.from=0;windows.to=data.bins;redraw();}}));
for(const host of document.querySelectorAll(".plot")){const thread=data.threads[host.dataset.thread],what=host.dataset.plot;
 if(what==="timeline")timeline(host,thread);
 else if(thread.heat[what])heat(host,thread,thread.heat[what]);
 else if(what==="working-set")lines(host,"different pages used, over record numbers",thread.working_set.map(s=>({name:s.size+" pages",points:s.bins.map((v,i)=>[i,v])})),{time:thread});
 else if(what==="curve")lines(host,"misses per thousand instructions by number of TLB entries",thread.curves.map(s=>({name:s.name,points:s.sizes.map(p=>[p.entries,p.per_thousand])})),{log:true,x:"TLB entries, fully associative"});
 else if(what==="mix")bars(host,"instructions by kind",thread.mix);
 else if(what==="bias")bars(host,"executions of conditional branches by how often the branch is taken",thread.bias);}
redraw();
let again;addEventListener("resize",()=>{clearTimeout(again);again=setTimeout(redraw,120);});
DARK.addEventListener("change",redraw);
addEventListener("beforeprint",()=>document.querySelectorAll("details").forEach(d=>d.open=true));
document.documentElement.dataset.drawn="yes";
)js";

} // namespace qtrace_tool
