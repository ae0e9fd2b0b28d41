'use strict';

// Fetches every file named in manifest.json, compares what came with what is
// listed there, and shows the files that arrived right.

const at_once = 4;
const rest_after_check = 3000;
const sample_fonts = {
  'font/dune.woff2': 'dune_woff2',
  'font/dune.woff': 'dune_woff',
  'font/dune.ttf': 'dune_ttf',
  'font/dune.otf': 'dune_otf'
};
const special_shows = {
  'data/temperature.csv': show_temperature,
  'data/palette.json': show_palette,
  'data/almanac.xml': show_almanac,
  'data/note.txt': show_note,
  'compute/field.wasm': show_field
};
const addresses = {};

function by_id(id) {
  return document.getElementById(id);
}

function text_of(bytes) {
  return new TextDecoder().decode(bytes);
}

function add(parent, tag, text, class_name) {
  const element = document.createElement(tag);
  if (text !== undefined)
    element.textContent = text;
  if (class_name)
    element.className = class_name;
  parent.append(element);
  return element;
}

function kilobytes(size) {
  return size < 1000 ? size + ' B' : (size / 1000).toFixed(1) + ' kB';
}

// The checksum of the cksum command: a CRC over the bytes and their number.
const crc_table = Uint32Array.from({ length: 256 }, (unused, index) => {
  let value = index << 24;
  for (let bit = 0; bit < 8; ++bit)
    value = value << 1 ^ (value < 0 ? 0x04c11db7 : 0);
  return value;
});

function cksum(bytes) {
  let crc = 0;
  const take = byte => {
    crc = crc << 8 ^ crc_table[(crc >>> 24 ^ byte) & 255];
  };
  bytes.forEach(take);
  for (let rest = bytes.length; rest > 0; rest = Math.floor(rest / 256))
    take(rest & 255);
  return ~crc >>> 0;
}

function faults_of(file, answer) {
  const faults = [];
  const compare = (what, expected, came) => {
    if (expected !== came)
      faults.push(`${what}: expected ${expected}, came ${came}`);
  };
  compare('status', 200, answer.status);
  // A public site adds the encoding of texts, and knows ".htm".
  const type = String(answer.type).replace('; charset=utf-8', '');
  const is_htm = file.path.endsWith('.htm') && type === 'text/html';
  compare('content type', file.type, is_htm ? file.type : type);
  compare('size', file.size, answer.bytes.length);
  if (file.size === answer.bytes.length)
    compare('checksum', file.cksum, cksum(answer.bytes));
  return faults;
}

// Showing what came

function show_everywhere(file, bytes) {
  const address = URL.createObjectURL(new Blob([bytes], { type: file.type }));
  addresses[file.path] = address;
  for (const element of document.querySelectorAll(`[data-use="${file.path}"]`)) {
    if (element.tagName === 'A') {
      element.href = address;
      element.download = file.path.split('/').pop();
    } else {
      element.addEventListener('error', () => {
        const caption = element.parentElement.querySelector('figcaption');
        if (caption)
          add(caption, 'em', 'arrived, but this browser does not show it');
      }, { once: true });
      element.src = address;
    }
  }
}

async function show_font(family, bytes) {
  document.fonts.add(await new FontFace(family, bytes.buffer).load());
}

function show_temperature(bytes) {
  const points = text_of(bytes).trim().split('\n').slice(1)
    .map(line => line.split(',').map(Number));
  const x_of = hour => 30 + hour * 12;
  const y_of = degrees => 130 - degrees * 3;
  const svg = (parent, tag, attributes, text) => {
    const element = document.createElementNS('http://www.w3.org/2000/svg', tag);
    for (const name in attributes)
      element.setAttribute(name, attributes[name]);
    element.textContent = text || '';
    parent.append(element);
    return element;
  };
  const chart = svg(by_id('temperature'), 'svg', {
    viewBox: '0 0 330 152', role: 'img', 'aria-label': 'Temperature over a day'
  });
  for (const degrees of [0, 10, 20, 30, 40]) {
    const y = y_of(degrees);
    svg(chart, 'line', { x1: 30, x2: 318, y1: y, y2: y, class: 'chart_grid' });
    svg(chart, 'text', { x: 24, y: y + 3, 'text-anchor': 'end' }, degrees + '\u00b0');
  }
  for (const hour of [0, 6, 12, 18, 24])
    svg(chart, 'text', { x: x_of(hour), y: 146, 'text-anchor': 'middle' }, hour + ' h');
  const line = points.map(([hour, degrees]) => x_of(hour) + ',' + y_of(degrees)).join(' ');
  svg(chart, 'polygon', { points: `${x_of(0)},130 ${line} ${x_of(24)},130`, class: 'chart_area' });
  svg(chart, 'polyline', { points: line, class: 'chart_line' });
}

function show_palette(bytes) {
  for (const colour of JSON.parse(text_of(bytes)).colours) {
    const item = add(by_id('palette'), 'li');
    add(item, 'i').style.background = colour.value;
    add(item, 'span', colour.name);
    add(item, 'code', colour.value);
  }
}

function show_almanac(bytes) {
  const almanac = new DOMParser().parseFromString(text_of(bytes), 'application/xml');
  for (const event of almanac.querySelectorAll('event')) {
    const row = add(by_id('almanac'), 'tr');
    add(row, 'th', event.getAttribute('time'));
    add(row, 'td', event.textContent);
  }
}

function show_note(bytes) {
  by_id('note').textContent = text_of(bytes);
}

async function show_field(bytes) {
  const { instance } = await WebAssembly.instantiate(bytes);
  const canvas = by_id('field');
  const limit = 64;
  const steps = instance.exports.fill(canvas.width, canvas.height, limit);
  const field = new Uint8Array(instance.exports.memory.buffer);
  const context = canvas.getContext('2d');
  const picture = context.createImageData(canvas.width, canvas.height);
  const colours = [[27, 33, 69], [133, 63, 98], [242, 134, 92], [255, 243, 217]];
  for (let point = 0; point < canvas.width * canvas.height; ++point) {
    const depth = field[point] === limit ? 0
      : Math.log(1 + field[point]) / Math.log(1 + limit) * 2.999;
    const lower = Math.floor(depth);
    for (let part = 0; part < 3; ++part)
      picture.data[point * 4 + part] = colours[lower][part]
        + (colours[lower + 1][part] - colours[lower][part]) * (depth - lower);
    picture.data[point * 4 + 3] = 255;
  }
  context.putImageData(picture, 0, 0);
  by_id('field_text').textContent = `${steps.toLocaleString('en')} steps`;
}

async function show(file, bytes) {
  if (addresses[file.path])
    return;
  show_everywhere(file, bytes);
  if (sample_fonts[file.path])
    await show_font(sample_fonts[file.path], bytes);
  if (special_shows[file.path])
    await special_shows[file.path](bytes);
}

function play(path) {
  if (addresses[path])
    new Audio(addresses[path]).play().catch(() => {
      by_id('play_all').textContent = 'This browser cannot play ' + path;
    });
}

function prepare_sounds() {
  const buttons = [...document.querySelectorAll('[data-play]')];
  for (const button of buttons)
    button.addEventListener('click', () => play(button.dataset.play));
  by_id('play_all').addEventListener('click', () => {
    buttons.forEach((button, index) =>
      setTimeout(() => play(button.dataset.play), index * 1250));
  });
}

// Reporting

function mark(path, state) {
  for (const element of document.querySelectorAll(`[data-file="${path}"]`))
    element.dataset.state = state;
}

function list_files(files) {
  by_id('files').replaceChildren();
  for (const file of files) {
    const item = add(by_id('files'), 'li');
    item.dataset.file = file.path;
    add(item, 'b', file.path);
    add(item, 'span', kilobytes(file.size), 'size');
    add(item, 'span', file.type, 'type');
    mark(file.path, 'running');
  }
}

function report_faults(file, faults) {
  by_id('failures').hidden = false;
  const item = add(by_id('failures').querySelector('ul'), 'li');
  add(item, 'b', file.path);
  const row = document.querySelector(`#files [data-file="${file.path}"]`);
  for (const fault of faults) {
    add(item, 'span', fault);
    add(row, 'span', fault, 'fault');
  }
}

function report_progress(tally, total) {
  const done = tally.right + tally.wrong;
  by_id('progress').style.width = 100 * done / total + '%';
  by_id('summary').textContent = `${done} of ${total} files checked`;
}

function way_of_arrival() {
  const page = performance.getEntriesByType('navigation')[0];
  const version = page && page.nextHopProtocol;
  return location.protocol.replace(':', '') + (version ? ` (${version})` : '');
}

function report_end(tally, total, started) {
  const result = `${tally.right} of ${total} files arrived right`;
  by_id('summary').textContent = result;
  document.title = result + ' - marlu';
  const seconds = ((performance.now() - started) / 1000).toFixed(1);
  const parts = [
    'over ' + way_of_arrival(),
    kilobytes(tally.bytes) + ' in ' + seconds + ' s'
  ];
  if (tally.repeats > 0)
    parts.push(`${tally.repeats} ${tally.repeats === 1 ? 'request' : 'requests'} repeated`);
  by_id('details').textContent = parts.join(' \u00b7 ');
  document.body.dataset.result = tally.right === total ? 'ok' : 'failed';
}

// Checking

async function check_file(file, tally) {
  let faults;
  let answer = early_answers[file.path];
  delete early_answers[file.path];
  try {
    answer = answer || await fetch_patiently(file.path);
    tally.repeats += answer.attempts - 1;
    tally.bytes += answer.bytes.length;
    faults = faults_of(file, answer);
  } catch (error) {
    faults = ['did not arrive: ' + error.message];
  }
  mark(file.path, faults.length ? 'failed' : 'ok');
  if (faults.length) {
    ++tally.wrong;
    report_faults(file, faults);
  } else {
    ++tally.right;
    await show(file, answer.bytes).catch(error => console.warn(file.path, error));
  }
}

async function check_all() {
  const started = performance.now();
  const tally = { right: 0, wrong: 0, bytes: 0, repeats: 0 };
  document.title = 'marlu: checking';
  document.body.dataset.result = 'running';
  by_id('again').disabled = true;
  by_id('failures').hidden = true;
  by_id('failures').querySelector('ul').replaceChildren();
  by_id('details').textContent = 'over ' + way_of_arrival();
  by_id('summary').textContent = 'Checking \u2026';
  try {
    const list = await fetch_patiently('manifest.json');
    const files = JSON.parse(text_of(list.bytes));
    tally.repeats += list.attempts - 1;
    list_files(files);

    // What the top of the page needs goes first.
    const wanted_first = path => path === 'font/dune.woff2' || path === 'img/header.svg';
    const queue = [...files].sort((a, b) => wanted_first(b.path) - wanted_first(a.path));
    const work = async () => {
      while (queue.length) {
        await check_file(queue.shift(), tally);
        report_progress(tally, files.length);
      }
    };
    await Promise.all(Array.from({ length: at_once }, work));
    report_end(tally, files.length, started);
  } catch (error) {
    give_up('The list of files did not arrive: ' + error.message);
  }
  setTimeout(() => { by_id('again').disabled = false; }, rest_after_check);
}

prepare_sounds();
by_id('again').addEventListener('click', check_all);
document.querySelector('main').hidden = false;
check_all();
