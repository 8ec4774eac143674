// Judging by eye: A, D and S label the proposal at hand and go on to the next one;
// J and K only move. The labels are saved as a file that --labels reads. Nothing
// leaves the page.
'use strict';
(() => {
  const questions = [...document.querySelectorAll('.question')];
  if (questions.length === 0) return;
  const keys = {a: 'agree', d: 'disagree', s: 'skip'};
  let saved = true;

  const bar = document.createElement('div');
  bar.className = 'judging';
  bar.setAttribute('role', 'region');
  bar.setAttribute('aria-label', 'Judging');
  const status = document.createElement('span');
  status.setAttribute('role', 'status');
  const help = document.createElement('span');
  help.className = 'keys';
  help.innerHTML = '<kbd>A</kbd> agree, <kbd>D</kbd> disagree, <kbd>S</kbd> skip, <kbd>J</kbd> <kbd>K</kbd> next and previous';
  const save = document.createElement('button');
  save.type = 'button';
  save.textContent = 'Save labels';
  bar.append(status, help, save);
  document.body.append(bar);

  const labelled = () => questions.filter((question) => question.dataset.label);
  const tell = () => {
    status.textContent = `${labelled().length} of ${questions.length} judged`;
    save.disabled = labelled().length === 0;
  };

  // The question that has the focus, else the first one without a label.
  const current = () => {
    const focused = document.activeElement.closest('.question');
    return focused || questions.find((question) => !question.dataset.label) || questions[0];
  };
  const go = (question) => {
    if (!question) return;
    question.focus({preventScroll: true});
    question.scrollIntoView({block: 'nearest'});
  };
  const label = (question, value) => {
    question.dataset.label = value;
    question.querySelector(`input[value=${value}]`).checked = true;
    saved = false;
    tell();
  };

  for (const question of questions) {
    question.querySelector('fieldset').hidden = false;
    question.addEventListener('change', (event) => label(question, event.target.value));
  }
  document.addEventListener('keydown', (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey || event.isComposing) return;
    const key = event.key.toLowerCase();
    const at = questions.indexOf(current());
    if (key in keys) {
      label(questions[at], keys[key]);
      go(questions[at + 1] || questions[at]);
    } else if (key === 'j' || key === 'k') {
      const inside = document.activeElement.closest('.question');
      go(inside ? questions[at + (key === 'j' ? 1 : -1)] : questions[at]);
    } else {
      return;
    }
    event.preventDefault();
  });

  save.addEventListener('click', () => {
    const lines = labelled().map(({dataset}) => JSON.stringify(
        {run_id: dataset.run ?? null, hotspot_id: dataset.site, ts: dataset.ts, label: dataset.label}) + '\n');
    const link = document.createElement('a');
    link.href = URL.createObjectURL(new Blob(lines, {type: 'application/jsonl'}));
    link.download = 'labels.jsonl';
    link.click();
    setTimeout(() => URL.revokeObjectURL(link.href), 60000);
    saved = true;
  });
  window.addEventListener('beforeunload', (event) => {
    if (!saved) event.preventDefault();
  });
  tell();
})();
