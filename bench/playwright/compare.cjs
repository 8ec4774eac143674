// Does the same to one page with Playwright and with vision::chromium, in one Chromium,
// and compares what the page recorded, the errors and the pictures. Differences that are
// meant have a name, and a row in the table of docs/input.md.
//   compare.cjs PAGE_DRIVER DOCS_TABLE [CLASS ...]    only these classes
const { spawn } = require('node:child_process');
const { readFileSync } = require('node:fs');
const { createServer } = require('node:net');
const readline = require('node:readline');
const { chromium } = require('playwright-core');

const recorder = 'data:text/html;charset=utf-8;base64,' + readFileSync(__dirname + '/recorder.html').toString('base64');

// Name, which cases it is about, and of the record what must be equal all the same.
const kinds = lines => lines.map(line => line.split(' ', 1)[0]);
const movesOnce = lines => lines.filter((line, i) => !/(pointer|mouse)move/.test(line) || !lines.slice(0, i).includes(line));
const bad = ['a+Foo', 'Control+Foo'];
const meant = [
  ['two moves', /^click /, movesOnce],
  ['Shift shifts', /^press .*Shift\+(\w+\+)*[a-z0-9`=[\]\\;',./-](\+|$)/, kinds],
  ['number pad', /^press (\w+\+)*Numpad\w+$/],
  ['AltGraph', /^press AltGraph/],
  ['twin modifiers', /^press (ShiftLeft\+ShiftRight|ControlLeft\+ControlRight)/, kinds],
  ['more keys', /^press (F13|F24|BrowserBack|BrowserHome|MediaStop|IntlBackslash|Help)$/],
  ['other spellings', /^press (Return|Page_Down|ctrl\+a|Cmd\+a)$/],
  ['bad chords', new RegExp(`^press (${bad.join('|').replaceAll('+', '\\+')})$`)],
  ['long chords', /^press a(\+a){16}$/],
  ['line ends', /^type .*\\r\\n/],
  ['open pickers', /^picker /],
  ['caret', /^picture .*caret/],
];

function* clicks() {
  for (const ratio of [1, 1.25, 1.5, 2]) for (const options of [{}, { scroll: 40 }, { zoom: 1.5 }]) {
    const points = [[0, 0], [799, 599], [800, 600], [799.9, 300.5], [-1, 5], [400, 900], [60, 170], [60.25, 170.5], [60.5, 170.75], [140, 168.3],
      [228.6, 168.6], [100, 80], [100.5, 60.49], [400, 30], [600, 50], [600, 200], [575.5, 181.25], [640, 225]];
    for (let i = 0; i < 30; i++) points.push([(i * 137.31) % 800, (i * 83.77) % 260]);
    for (const [x, y] of points) yield { ratio, options, act: ['click', x, y] };
  }
}
function* frames() {
  for (const ratio of [1, 1.25, 1.5, 2]) for (const left of [20, 400]) {
    for (let i = 0; i < 30; i++) yield { ratio, options: { scroll: i % 3 * 30 }, act: ['click', left + (i * 57.3) % 350, 230 + (i * 31.9) % 280] };
  }
}
function* wheels() {
  for (const ratio of [1, 2]) for (const at of [[700, 500], [100, 80], [350, 200], [150, 400], [500, 400]]) {
    for (const delta of [[0, 100], [0, 400.5], [0, -100], [0, 0], [50, 0], [120.25, 60], [0, 2400], [0, 1], [0, 33.3], [-20, 80]]) {
      yield { ratio, options: {}, before: [['click', ...at]], act: ['wheel', ...delta] };
    }
  }
}
const named = ('Enter Tab Backspace Delete Insert Escape ArrowLeft ArrowUp ArrowRight ArrowDown Home End PageUp PageDown Shift Control Alt Meta '
  + 'ShiftLeft ShiftRight ControlLeft ControlRight AltLeft AltRight MetaLeft MetaRight ControlOrMeta AltGraph CapsLock NumLock ScrollLock Pause PrintScreen '
  + 'ContextMenu AudioVolumeMute AudioVolumeDown AudioVolumeUp MediaTrackNext MediaTrackPrevious MediaPlayPause Space Backquote Minus Equal BracketLeft '
  + 'BracketRight Backslash Semicolon Quote Comma Period Slash NumpadEnter NumpadMultiply NumpadAdd NumpadSubtract NumpadDecimal NumpadDivide '
  + 'F13 F24 BrowserBack BrowserHome MediaStop Return Page_Down IntlBackslash Help').split(' ');
for (let i = 0; i < 26; i++) named.push('Key' + String.fromCharCode(65 + i));
for (let i = 0; i < 10; i++) named.push('Digit' + i, 'Numpad' + i);
for (let i = 1; i <= 12; i++) named.push('F' + i);
const printable = [...Array(95).keys()].map(i => String.fromCharCode(32 + i));
function* keys() {
  for (const focus of ['area', 'line', 'rich', 'button']) {
    for (const key of [...named, ...printable, '\n', '\r', 'Foo', '', '\u00fc']) yield { ratio: 1, options: { focus }, act: ['press', key] };
  }
}
function* chords() {
  const held = ['Control', 'Shift', 'Alt', 'Meta', 'Control+Shift', 'Control+Alt', 'Alt+Shift', 'Shift+Control', 'ControlRight', 'ControlOrMeta', 'Control+Alt+Shift'];
  const last = ['a', 'A', 'KeyA', 'c', 'v', 'x', 'z', 'Z', 'y', 'b', '1', '!', 'Digit1', '+', '/', ' ', 'Enter', 'Tab', 'Backspace', 'Delete', 'ArrowLeft', 'ArrowRight',
    'ArrowUp', 'ArrowDown', 'Home', 'End', 'Escape', 'F2', 'Insert', 'PageDown', 'Numpad7', 'NumpadAdd', 'NumpadEnter'];
  for (const focus of ['area', 'rich']) {
    for (const modifier of held) for (const key of last) yield { ratio: 1, options: { focus }, act: ['press', modifier + '+' + key] };
    for (const chord of ['a+a', 'a+b', 'a+a+a', 'Shift+Shift', 'Control+a+a', 'Shift+Tab+Tab', 'ArrowLeft+ArrowLeft', 'ShiftLeft+ShiftRight', 'ControlLeft+ControlRight+a',
      'AltGraph+a', 'ctrl+a', 'Cmd+a', 'Enter+Enter', '\n+\r', 'a+Control', 'a+Shift+b', ...bad, 'a' + '+a'.repeat(16)]) {
      yield { ratio: 1, options: { focus }, act: ['press', chord] };
    }
    for (const sequence of ['Control+a Delete', 'Shift+ArrowLeft Shift+ArrowLeft x', 'Control+a Control+c End Control+v', 'Home Shift+End Backspace', 'Control+ArrowLeft y Control+z',
      'Control+Shift+ArrowRight Control+x Control+v Control+v', 'Shift+Home Control+b', 'End Enter q ArrowUp w', 'Tab z', 'Shift+Tab z']) {
      const steps = sequence.split(' ').map(key => ['press', key]);
      yield { ratio: 1, options: { focus }, before: steps.slice(0, -1), act: steps.at(-1) };
    }
  }
}
function* texts() {
  const all = [...printable.join('').match(/.{1,9}/g), 'Hello, World!', 'gr\u00fc\u00df', '\u4f60\u597d', '\ud83d\ude00', 'e\u0301', '\ud83d\udc69\u200d\ud83d\udcbb', 'a\tb', 'x\ny', 'x\ry', 'x\r\ny',
    'p\r\n\r\nq', '\u00a0', '\u200b', 'tab\tand\nline', '', ' ', '\u05e9\u05dc\u05d5\u05dd', '\u0000', '\u001b', '\u007f', '\u2028', '\ufeff', 'A'.repeat(60), '\\n', '<b>&amp;</b>'];
  for (const focus of ['area', 'line', 'rich', 'button']) for (const text of all) yield { ratio: 1, options: { focus }, act: ['type', text] };
}
function* pickers() {
  const select = '<select style="width:200px"><option>one<option>two<option>three</select>';
  for (const control of [select, '<input type=date style="width:200px">', '<input type=color style="width:200px">']) {
    const html = `<body style="margin:0;height:900px" onmousedown="log.push(event.target.nodeName)"><script>log=[];state=async()=>log;reset=()=>0</script>${control}`;
    yield { ratio: 1, html, before: [['click', 190, 10]], act: ['click', 50, 60], kind: 'picker' };
  }
}
function* pictures() {
  const bodies = ['', '<h1>Title</h1><p>Some text, <b>bold</b> and <i>italic</i>.', '<button>Button</button> <input value=text> <input type=checkbox checked> <select><option>one</select>',
    '<div style="width:300px;height:200px;background:linear-gradient(45deg,red,blue);border-radius:20px;box-shadow:5px 5px 9px"></div>',
    '<svg width=300 height=200><circle cx=90 cy=90 r=70 fill=green /><path d="M0 0L200 150" stroke=red /></svg>',
    '<table border=1><tr><td>a<td>b<tr><td>c<td>d</table>', '<div style="height:2000px;background:repeating-linear-gradient(#fff 0 10px,#ace 10px 20px)"></div>',
    '<div style="transform:rotate(7deg);width:200px;font:700 30px serif">turned</div>', '<p style="font-size:13.37px;letter-spacing:.3px">fractions of pixels',
    '<div style="position:fixed;right:0;bottom:0;width:90px;height:40px;background:#456"></div><div style="height:1500px"></div>',
    '<canvas id=c></canvas><script>const x=c.getContext("2d");for(let i=0;i<90;i++){x.fillStyle=`hsl(${i*4} 70% 50%)`;x.fillRect(i*3,i,20,20)}</script>'];
  for (const ratio of [1, 1.5, 2]) for (const full of [false, true]) for (const body of bodies) {
    yield { ratio, html: `<!doctype html><body style="font:16px 'DejaVu Sans'"><script>reset=()=>0</script>${body}`, act: ['screenshot', full], kind: 'picture' };
  }
  const focused = '<!doctype html><input id=i autofocus style="font-size:80px"><script>reset=()=>i.focus()</script>';
  yield { ratio: 1, html: focused, act: ['screenshot', false], kind: 'picture with a caret' };
}

class Theirs {
  constructor(browser) { this.browser = browser; }
  async perform([operation, ...given]) {
    const page = this.page;
    switch (operation) {
      case 'page': {
        const options = { viewport: { width: given[0], height: given[1] }, deviceScaleFactor: given[2] };
        this.page = await (await this.browser.newContext(options)).newPage();
        return null;
      }
      case 'navigate': await page.goto(given[0]); return null;
      case 'click': await page.mouse.click(...given); return null;
      case 'wheel': await page.mouse.wheel(...given); return null;
      case 'press': await page.keyboard.press(given[0]); return null;
      case 'type': await page.keyboard.type(given[0]); return null;
      case 'evaluate': return page.evaluate(given[0]);
      case 'screenshot': return (await page.screenshot({ fullPage: given[0] })).toString('base64');
    }
  }
  async do(line) {
    try { return { value: await this.perform(line) }; } catch (error) { return { error: error.message.replace(/^\w+\.\w+: /, '').split('\n')[0] }; }
  }
}

class Ours {
  constructor(driver, url) {
    const process = this.process = spawn(driver, [url], { stdio: ['pipe', 'pipe', 'inherit'] });
    const lines = readline.createInterface({ input: process.stdout })[Symbol.asyncIterator]();
    this.answer = async () => JSON.parse((await lines.next()).value);
  }
  do(line) { this.process.stdin.write(JSON.stringify(line) + '\n'); return this.answer(); }
}

async function freePort() {
  const server = createServer().listen(0, '127.0.0.1');
  await new Promise(done => server.once('listening', done));
  const { port } = server.address();
  await new Promise(done => server.close(done));
  return port;
}

// What the page recorded, or the picture, or the error.
async function outcome(side, { html, options, before = [], act, ratio, kind }) {
  const fresh = html ?? recorder;
  if (side.ratio !== ratio) await side.do(['page', 800, 600, ratio]);
  if (side.ratio !== ratio || side.url !== fresh) await side.do(['navigate', html ? 'data:text/html;charset=utf-8,' + encodeURIComponent(html) : fresh]);
  Object.assign(side, { ratio, url: fresh });
  await side.do(['evaluate', `reset(${JSON.stringify(options ?? {})})`]);
  for (const line of before) await side.do(line);
  if (act[0] === 'wheel') await side.do(['evaluate', 'state().then(() => log.length = 0)']);
  const done = await side.do(act);
  if (act[0] === 'screenshot') return done.value ?? 'error: ' + done.error;
  const recorded = await side.do(['evaluate', 'state()']);
  if (kind === 'picker' || bad.includes(act[1])) side.ratio = 0;  // what stays open, or pressed
  return [...(recorded.value ?? [recorded.error]), ...(done.error ? ['error: ' + done.error] : [])];
}

const samePixels = (page, pictures) => page.evaluate(async pictures => {
  const [a, b] = await Promise.all(pictures.map(async picture => {
    const image = await createImageBitmap(await (await fetch('data:image/png;base64,' + picture)).blob());
    const canvas = new OffscreenCanvas(image.width, image.height).getContext('2d');
    canvas.drawImage(image, 0, 0);
    return canvas.getImageData(0, 0, image.width, image.height);
  }));
  return a.width === b.width && a.height === b.height && a.data.every((value, i) => value === b.data[i]);
}, pictures);

const png = Buffer.from('\x89PNG', 'latin1').toString('base64').slice(0, 5);
const label = ({ act, kind }) => (kind ?? act[0]) + ' ' + act.slice(1).map(part => typeof part === 'string' ? JSON.stringify(part).slice(1, -1) : part).join(' ');

async function main() {
  const [driver, docs, ...wanted] = process.argv.slice(2);
  const documented = [...readFileSync(docs, 'utf8').split('## Beside Playwright')[1].matchAll(/^\| ([^|`*-][^|]*) \|/gm)].map(match => match[1]).filter(name => name !== 'name');
  const port = await freePort();
  const browser = await chromium.launch({ executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium', args: ['--no-sandbox', '--remote-debugging-port=' + port] });
  const [theirs, ours] = [new Theirs(browser), new Ours(driver, 'http://127.0.0.1:' + port)];
  const judge = await (await browser.newContext()).newPage();
  const seen = new Set();
  let faults = 0;
  for (const [name, cases] of Object.entries({ clicks, 'clicks in frames': frames, wheel: wheels, keys, 'chords and sequences': chords, 'typed texts': texts, pickers, screenshots: pictures })) {
    if (wanted.length && !wanted.includes(name)) continue;
    let equal = 0, total = 0;
    const different = new Map();
    for (const one of cases()) {
      const first = outcome(ours, one);
      if (/[cvx]"|Insert|Delete/i.test(JSON.stringify(one))) await first;  // they share a clipboard
      const [a, b] = await Promise.all([first, outcome(theirs, one)]);
      const same = async (x, y) => JSON.stringify(x) === JSON.stringify(y) || (typeof x === 'string' && x.startsWith(png) && y.startsWith(png) && await samePixels(judge, [x, y]));
      ++total;
      if (await same(a, b)) { ++equal; continue; }
      let reason;
      for (const [title, about, core] of meant) {
        if (!reason && about.test(label(one)) && (!core || await same(core(a), core(b)))) reason = title;
      }
      if (reason) {
        seen.add(reason);
      } else if (++faults <= 60) {
        const from = Array.isArray(a) ? a.findIndex((line, i) => line !== b[i]) : 0;
        const lines = [a, b].map(list => Array.isArray(list) ? list.slice(from, from + 8) : [list.slice(0, 99)]);
        console.log(`NOT MEANT: ${label(one)} ${JSON.stringify(one.options ?? {})} ratio ${one.ratio}\n  ours   ${lines[0].join('\n         ')}\n  theirs ${lines[1].join('\n         ')}`);
      }
      different.set(reason ?? 'NOT MEANT', (different.get(reason ?? 'NOT MEANT') ?? 0) + 1);
    }
    console.log(`${name}: ${equal} of ${total} equal` + [...different].map(([reason, count]) => `; ${count} ${reason}`).join(''));
  }
  await browser.close();
  ours.process.stdin.end();
  const names = meant.map(([title]) => title);
  const complain = (list, text) => { for (const title of list) { console.log(`${text}: ${title}`); ++faults; } };
  if (!wanted.length) complain(names.filter(title => !seen.has(title)), 'no longer different');
  complain(names.filter(title => !documented.includes(title)), 'not in the table');
  complain(documented.filter(title => !names.includes(title)), 'in the table only');
  console.log(faults ? 'compare-playwright: see above' : 'compare-playwright: equal but for what is meant');
  process.exitCode = faults ? 1 : 0;
}
main();
