// Text, shapes and a gradient: neither flat nor noise.
(() => {
  const cells = [...Array(400).keys()].map((i) =>
    `<div style="display:inline-block;width:96px;height:30px;margin:2px;border-radius:6px;font:13px sans-serif;` +
    `background:linear-gradient(${i}deg, hsl(${i * 7} 60% 80%), hsl(${i * 11} 40% 60%))">item ${i * i}</div>`);
  document.body.innerHTML = cells.join("");
})()
