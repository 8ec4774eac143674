'use strict';

const colours = ['blue', 'green', 'orange', 'violet', 'rose', 'teal'];
const byId = (id) => document.getElementById(id);
let boards = [];
let current = null;

// Texts reach the page only as text nodes.
function element(tag, className, ...children) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  node.append(...children);
  return node;
}

function face(initials, colour) {
  return element('span', `avatar ${colours[colour % colours.length]}`, initials);
}

function faces(board) {
  return board.people.map((initials, i) => face(initials, i + board.name.length));
}

function entry(board, index) {
  const what = element('div', 'what', element('div', 'name', board.name), element('div', 'muted', board.about));
  const item = element('li', 'entry', element('span', `tile ${colours[index % colours.length]}`), what,
    element('span', 'faces', ...faces(board)));
  item.addEventListener('click', () => { location.hash = board.id; });
  return item;
}

function showBoard(board) {
  byId('board-name').textContent = board.name;
  byId('faces').replaceChildren(...faces(board));
  const columns = Object.entries(board.columns).map(([title, cards]) => element('section', 'column',
    element('h3', '', title), ...cards.map((text, i) => element('div', 'card',
      element('span', `tag ${colours[(i + title.length) % colours.length]}`), text))));
  byId('columns').replaceChildren(...columns);
}

function route() {
  current = boards.find((board) => board.id === location.hash.slice(1)) ?? null;
  byId('boards').hidden = current !== null;
  byId('board').hidden = current === null;
  byId('veil').hidden = true;
  window.scrollTo(0, 0);
  if (current) {
    showBoard(current);
    post('opened', {});
  }
}

async function post(action, body) {
  const response = await fetch(`api/boards/${current.id}/${action}`,
    { method: 'POST', headers: { 'content-type': 'application/json' }, body: JSON.stringify(body) });
  const answer = await response.json();
  if (!response.ok) throw new Error(answer.error);
  return answer;
}

function openDialog() {
  byId('veil').hidden = false;
  byId('email').value = current.suggestion;
  byId('problem').textContent = '';
  byId('members').replaceChildren(element('li', '', face('JW', 3), 'You, the owner'));
  byId('link').hidden = true;
}

async function invite(event) {
  event.preventDefault();
  const email = byId('email').value.trim();
  byId('problem').textContent = '';
  const row = element('li', 'muted', element('span', 'spinner'), 'Sending…');
  byId('members').append(row);
  try {
    const member = await post('invitations', { email });
    row.className = '';
    row.replaceChildren(face(member.email[0].toUpperCase(), 1), `${member.email} joined`);
    byId('email').value = '';
    byId('link').hidden = false;
    byId('make-link').hidden = false;
    byId('link-ready').hidden = true;
  } catch (error) {
    row.remove();
    byId('problem').textContent = error.message;
  }
}

async function makeLink() {
  const { link } = await post('links', {});
  byId('make-link').hidden = true;
  byId('link-text').textContent = link;
  byId('link-ready').hidden = false;
}

byId('share').addEventListener('click', openDialog);
byId('close').addEventListener('click', () => { byId('veil').hidden = true; });
byId('invite').addEventListener('submit', invite);
byId('make-link').addEventListener('click', makeLink);
window.addEventListener('hashchange', route);

fetch('boards.json').then((response) => response.json()).then((list) => {
  boards = list;
  byId('board-list').replaceChildren(...boards.map(entry));
  route();
});
